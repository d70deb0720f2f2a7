#pragma once
// Shared set-up of the upgrade service tests: a temporary HOME with the path table filled the
// way the launcher fills it at start-up, a system-wide installation made by
// scripts/make-sample-install, a real log file, tree snapshots and real child processes.

#include <gtest/gtest.h>

#include <QDir>
#include <QString>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/cloud-service.h"
#include "tests/support/test-support.h"
#include "tests/unit/tree-snapshot.h"
#include "tests/unit/user-paths.h"

namespace servicetest {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

inline std::string PathOf(const char* key) {
    return UIPathManager::getInstance()->getPath(QString::fromLatin1(key)).toStdString();
}

// Runs scripts/make-sample-install; true on success.
inline bool MakeSampleInstall(const std::string& root, const std::string& build) {
    const std::string command = std::string("'") + LAUNCHER_SOURCE_DIR +
                                "/scripts/make-sample-install' '" + root + "' '" + build + "'";
    return system(command.c_str()) == 0;
}

// A test's world: HOME and the system-wide root in one temporary folder, the path table
// filled, and the logger writing every service line to a real file.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(base.path().empty());
        home = base / "home";
        root = base / "opt/CorvaneQuarn";
        quarn = home + "/.CorvaneQuarn";
        app = quarn + "/CorvaneQuarn.app";
        nimbrel = home + "/.Nimbrel";
        log_path = base / "launcher.log";
        ASSERT_TRUE(testsupport::MakeDirs(home));
        ASSERT_TRUE(testsupport::MakeDirs(root + "/bin"));
        setenv("HOME", home.c_str(), 1);
        unsetenv("XDG_CURRENT_DESKTOP");
        unsetenv("XDG_DATA_HOME");
        FillPathTable(root + "/bin");
        ASSERT_TRUE(testsupport::WriteFile(base / "launcher.debug",
                                           "service_debug = 7\nfile_op_debug = 7\n"));
        ASSERT_EQ(Logger::Initialize(Logger::TYPE_FILE, log_path, base / "launcher.debug", 50,
                                     Logger::SCOPE_THREAD),
                  0);
    }
    void TearDown() override { Logger::Destroy(); }

    std::string Log() const { return testsupport::ReadFile(log_path); }
    // True when the log holds a line of the level, source file and line with this text.
    bool Logged(const char* level, const char* file, int line, const std::string& text) const {
        const std::string head =
            std::string("[") + level + "] " + file + "(" + std::to_string(line) + "): " + text;
        return Log().find(head) != std::string::npos;
    }
    size_t CountInLog(const std::string& text) const {
        const std::string log = Log();
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++n;
        }
        return n;
    }

    // The package folder of the sample installation made into `root` at this build.
    std::string Package() const { return root + "/package/nimbrel"; }

    testsupport::TempDir base;
    std::string home, root, quarn, app, nimbrel, log_path;
};

// A real child process running `body`; a thread reaps it as soon as it ends, so that a probe
// with signal 0 sees it gone (an unreaped child would still answer). The child reports that
// it is ready (its signal set-up done) before the constructor returns.
class Child {
public:
    explicit Child(const std::function<void()>& body) {
        int ready[2];
        if (pipe(ready) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            body_ready_fd = ready[1];
            body();
            _exit(0);
        }
        close(ready[1]);
        char byte;
        while (pid_ > 0 && read(ready[0], &byte, 1) < 0 && errno == EINTR) {
        }
        close(ready[0]);
        reaper_ = std::thread([this] {
            int status = 0;
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
            status_ = status;
        });
    }
    ~Child() {
        if (reaper_.joinable()) {
            kill(pid_, SIGKILL);
            reaper_.join();
        }
    }
    pid_t pid() const { return pid_; }
    // Waits for the end; the status as waitpid gives it.
    int Wait() {
        if (reaper_.joinable()) {
            reaper_.join();
        }
        return status_;
    }

    // Called by the child's body once its signal handling is in place.
    static void SignalReady() {
        const char byte = 1;
        if (write(body_ready_fd, &byte, 1) < 0) {
            _exit(99);
        }
        close(body_ready_fd);
    }

private:
    static inline int body_ready_fd = -1;
    pid_t pid_ = -1;
    std::thread reaper_;
    int status_ = 0;
};

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace servicetest
