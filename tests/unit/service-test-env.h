#pragma once
// Shared set-up of the upgrade service tests and the reliability driver: a temporary HOME with
// the path table filled the way the launcher fills it, a sample system-wide installation, a
// real log file, real child processes and tree manifests.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/linux/linux-service.h"
#include "tests/support/test-support.h"

namespace servicetest {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using testsupport::MakeDirs;
using testsupport::ReadFile;
using testsupport::WriteFile;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The path table as the launcher fills it; the system root is the folder above launcher_dir.
inline void FillPathTable(const std::string& launcher_dir) {
    FillQuarnPathTable(&Service::GetUserInstallPath, QString::fromStdString(launcher_dir));
}

// Relative path -> type, mode bits and digest of the contents or link target.
using TreeSnapshot = std::map<std::string, std::string>;
inline TreeSnapshot Snapshot(const std::string& root) {
    TreeSnapshot tree;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        struct stat st;
        if (lstat(it->path().c_str(), &st) == 0) {
            const std::string bytes = S_ISLNK(st.st_mode)
                                          ? fs::read_symlink(it->path(), ec).string()
                                      : S_ISREG(st.st_mode) ? ReadFile(it->path())
                                                            : "";
            tree[fs::relative(it->path(), root, ec)] =
                std::to_string(st.st_mode) + ":" + std::to_string(std::hash<std::string>{}(bytes));
        }
    }
    return tree;
}

// HOME and the system-wide root in one temporary folder, every service line in a real log.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(MakeDirs(home) && MakeDirs(root + "/bin"));
        setenv("HOME", home.c_str(), 1);
        unsetenv("XDG_CURRENT_DESKTOP");
        unsetenv("XDG_DATA_HOME");
        FillPathTable(root + "/bin");
        ASSERT_TRUE(WriteFile(base / "debug", "service_debug = 7\nfile_op_debug = 7\n"));
        ASSERT_EQ(Logger::Initialize(Logger::TYPE_FILE, log_path, base / "debug", 50,
                                     Logger::SCOPE_THREAD),
                  0);
    }
    void TearDown() override { Logger::Destroy(); }

    // The sample installation (scripts/make-sample-install) at this build.
    bool MakeSampleInstall(const std::string& build) const {
        return system(
                   ("'" LAUNCHER_SOURCE_DIR "/scripts/make-sample-install' '" + root + "' " + build)
                       .c_str()) == 0;
    }
    // The package at build 121 over an old user copy at build 120 with a file of its own.
    void MakeOldCopy() {
        ASSERT_TRUE(MakeSampleInstall("120") && MakeDirs(quarn));
        ASSERT_EQ(system(("cp -a '" + Package() + "' '" + app + "'").c_str()), 0);
        ASSERT_TRUE(WriteFile(app + "/only-in-old", "old bytes") && MakeSampleInstall("121"));
    }
    std::string Package() const { return root + "/package/nimbrel"; }
    bool Exists(const std::string& path) const {
        std::error_code ec;
        return fs::exists(fs::symlink_status(path, ec));
    }
    // How often the log holds this text; with a level, file and line, as a line's start.
    size_t Logged(const std::string& text, const char* level = nullptr, const char* file = "",
                  int line = 0) const {
        const std::string log = ReadFile(log_path),
                          want = level ? std::string("[") + level + "] " + file + "(" +
                                             std::to_string(line) + "): " + text
                                       : text;
        size_t n = 0;
        for (size_t at = log.find(want); at != std::string::npos; at = log.find(want, at + 1)) {
            ++n;
        }
        return n;
    }

    testsupport::TempDir base;
    const std::string home = base / "home", root = base / "opt/CorvaneQuarn",
                      quarn = home + "/.CorvaneQuarn", app = quarn + "/CorvaneQuarn.app",
                      nimbrel = home + "/.Nimbrel", log_path = base / "launcher.log";
};

}  // namespace servicetest
