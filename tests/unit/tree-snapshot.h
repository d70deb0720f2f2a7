#pragma once
// Snapshot of a folder tree, to tell whether two trees are byte-identical (types, permission
// bits, file contents and link targets).

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>

#include "tests/support/test-support.h"

namespace servicetest {

namespace fs = std::filesystem;

// What a tree holds: relative path -> type letter, mode bits and contents or link target.
using TreeSnapshot = std::map<std::string, std::string>;

inline TreeSnapshot Snapshot(const std::string& root) {
    TreeSnapshot tree;
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(root, ec))) {
        return tree;
    }
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        struct stat st;
        if (lstat(it->path().c_str(), &st) != 0) {
            continue;
        }
        std::string value = std::to_string(st.st_mode & 07777) + ":";
        if (S_ISLNK(st.st_mode)) {
            value = "l" + value + fs::read_symlink(it->path(), ec).string();
        } else if (S_ISDIR(st.st_mode)) {
            value = "d" + value;
        } else {
            value = "f" + value + testsupport::ReadFile(it->path());
        }
        tree[fs::relative(it->path(), root, ec).string()] = value;
    }
    return tree;
}

}  // namespace servicetest
