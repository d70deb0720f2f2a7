#pragma once
// The path table filled the way the launcher fills it at start-up, and tree snapshots, for the
// service tests, the reliability driver and the benchmarks.

#include <sys/stat.h>

#include <QDir>
#include <QString>

#include <filesystem>
#include <map>
#include <string>

#include "lib/desktop/ui-path-manager.h"
#include "service/cloud-service.h"
#include "tests/support/test-support.h"

namespace servicetest {

// The path table as the launcher fills it; the system root is the folder above launcher_dir.
inline void FillPathTable(const std::string& launcher_dir) {
    FillQuarnPathTable(&Service::GetUserInstallPath, QString::fromStdString(launcher_dir));
}

// Relative path -> type letter, mode bits and contents or link target: equal snapshots mean
// byte-identical trees.
using TreeSnapshot = std::map<std::string, std::string>;

inline TreeSnapshot Snapshot(const std::string& root) {
    namespace fs = std::filesystem;
    TreeSnapshot tree;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        struct stat st;
        if (lstat(it->path().c_str(), &st) != 0) {
            continue;
        }
        const std::string mode = std::to_string(st.st_mode & 07777) + ":";
        tree[fs::relative(it->path(), root, ec).string()] =
            S_ISLNK(st.st_mode)   ? "l" + mode + fs::read_symlink(it->path(), ec).string()
            : S_ISDIR(st.st_mode) ? "d" + mode
                                  : "f" + mode + testsupport::ReadFile(it->path());
    }
    return tree;
}

}  // namespace servicetest
