#pragma once

#include <cstdint>
#include <mutex>
#include <string>

// Random eight-character names for temporary files; never touches the disk.
class TmpNameGen {
public:
    static TmpNameGen& getInstance();
    void reseed();
    std::string getTmpName();
    std::string getTmpPath(const std::string& dir);
};
