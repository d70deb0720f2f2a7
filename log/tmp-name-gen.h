#pragma once

#include <cstdint>
#include <mutex>
#include <random>
#include <string>

// Random eight-character names for temporary files; never touches the disk.
class TmpNameGen {
public:
    static TmpNameGen& getInstance();
    void reseed();
    std::string getTmpName();
    std::string getTmpPath(const std::string& dir);

private:
    friend struct TmpNameGenTestAccess;  // lets tests pin the engine to a known state

    TmpNameGen();
    TmpNameGen(const TmpNameGen&) = delete;
    TmpNameGen& operator=(const TmpNameGen&) = delete;

    std::mutex mutex;
    // Park and Miller's minimal standard generator: x = x * 16807 mod (2^31 - 1).
    std::linear_congruential_engine<uint64_t, 16807, 0, 2147483647> engine;
};
