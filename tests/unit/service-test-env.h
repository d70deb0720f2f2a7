#pragma once
// Shared set-up of the upgrade service tests: a temporary HOME with the path table filled the
// way the launcher fills it, a sample system-wide installation, a real log file and real
// child processes.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "log/log.h"
#include "service/linux/linux-service.h"
#include "tests/unit/user-paths.h"

namespace servicetest {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using testsupport::MakeDirs;
using testsupport::ReadFile;
using testsupport::WriteFile;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
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

    // Makes the sample installation (scripts/make-sample-install) at this build.
    bool MakeSampleInstall(const std::string& build) const {
        return system(("'" LAUNCHER_SOURCE_DIR "/scripts/make-sample-install' '" + root + "' '" +
                       build + "'")
                          .c_str()) == 0;
    }
    std::string Package() const { return root + "/package/nimbrel"; }
    bool Exists(const std::string& path) const {
        std::error_code ec;
        return fs::exists(fs::symlink_status(path, ec));
    }
    std::string Log() const { return ReadFile(log_path); }
    // True when the log holds a line of this level, source file and line number with this text.
    bool Logged(const char* level, const char* file, int line, const std::string& text) const {
        return Log().find(std::string("[") + level + "] " + file + "(" + std::to_string(line) +
                          "): " + text) != std::string::npos;
    }
    size_t CountInLog(const std::string& text) const {
        const std::string log = Log();
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++n;
        }
        return n;
    }

    testsupport::TempDir base;
    const std::string home = base / "home", root = base / "opt/CorvaneQuarn",
                      quarn = home + "/.CorvaneQuarn", app = quarn + "/CorvaneQuarn.app",
                      nimbrel = home + "/.Nimbrel", log_path = base / "launcher.log";
};

// A real child running `body` with SIGTERM blocked, so that a SIGTERM sent before its handling
// is in place waits for it (the body unblocks it). A thread reaps the child at once, so that a
// probe with signal 0 sees it gone.
class Child {
public:
    explicit Child(void (*body)()) {
        sigset_t term, old;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &term, &old);
        pid_ = fork();
        if (pid_ == 0) {
            body();
            _exit(0);
        }
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
        reaper_ = std::thread([this] {
            while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
            }
        });
    }
    ~Child() {
        if (reaper_.joinable()) {
            kill(pid_, SIGKILL);
            reaper_.join();
        }
    }
    pid_t pid() const { return pid_; }
    int Wait() {
        if (reaper_.joinable()) {
            reaper_.join();
        }
        return status_;
    }

private:
    pid_t pid_ = -1;
    std::thread reaper_;
    int status_ = 0;
};

}  // namespace servicetest
