// The Linux upgrade flow: upgrade decision, stopping the running client through its pid file,
// the upgrade step and the start of the user's copy.

#include <sys/prctl.h>

#include "service/linux/linux-service.h"
#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;
using testsupport::MakeDirs;
using testsupport::WriteFile;

const char* const kLinux = "linux-service.cpp";

std::string InfoWithBuild(const std::string& build) {
    return "[Version]\nmajor_version=3\nminor_version=2\nbuild_version=" + build +
           "\nicon_overlay_version=7\n";
}

// A client that runs until a signal ends it.
void RunUntilSignalled() {
    Child::SignalReady();
    for (;;) {
        pause();
    }
}

// Runs the stop sequence beside another process of the same group and user; 0 when that
// process is still alive afterwards.
int StopLeavesOtherProcessAlive() {
    const pid_t member = fork();
    if (member == 0) {
        for (;;) {
            pause();
        }
    }
    LinuxService service;
    service.StopService();
    usleep(50 * 1000);
    const bool alive = waitpid(member, nullptr, WNOHANG) == 0;
    kill(member, SIGKILL);
    return alive ? 0 : 1;
}

class LinuxServiceTest : public ServiceTest {
protected:
    std::string PidFile() const { return quarn + "/ui.pid"; }
    void WritePid(const std::string& text) { ASSERT_TRUE(WriteFile(PidFile(), text)); }
    // Runs the stop sequence and gives the seconds it took.
    double TimedStop() {
        LinuxService service;
        const Clock::time_point start = Clock::now();
        service.StopService();
        return SecondsSince(start);
    }
};

// ---- the upgrade decision ----

struct DecisionCase {
    const char* source;  // nullptr: no user INFO
    const char* target;  // nullptr: no system INFO
    enum { kExe, kNoExe, kDanglingExe } ui;
    bool upgrade;
};

TEST_F(LinuxServiceTest, UpgradeDecisionFollowsBuildsAndTheUiExecutable) {
    const DecisionCase cases[] = {
        {"120", "121", DecisionCase::kExe, true},
        {"121", "121", DecisionCase::kExe, false},
        {"121", "121", DecisionCase::kNoExe, true},
        {"121", "120", DecisionCase::kExe, false},
        {"121", "120", DecisionCase::kNoExe, true},
        {"121abc", "121", DecisionCase::kExe, false},
        {"120abc", "121x", DecisionCase::kExe, true},
        {"abc", "1", DecisionCase::kExe, true},
        {"", "1", DecisionCase::kExe, true},
        {nullptr, "1", DecisionCase::kExe, true},
        {"3", nullptr, DecisionCase::kExe, false},
        {"3", nullptr, DecisionCase::kNoExe, true},
        {nullptr, nullptr, DecisionCase::kExe, false},
        {"121", "121", DecisionCase::kDanglingExe, true},
    };
    const std::string exe = app + "/bin/cloud-quarn-ui";
    for (const DecisionCase& c : cases) {
        testsupport::RemoveTree(quarn);
        fs::remove(root + "/INFO");
        if (c.source) {
            ASSERT_TRUE(WriteFile(app + "/INFO", InfoWithBuild(c.source)));
        }
        if (c.target) {
            ASSERT_TRUE(WriteFile(root + "/INFO", InfoWithBuild(c.target)));
        }
        ASSERT_TRUE(MakeDirs(app + "/bin"));
        if (c.ui == DecisionCase::kExe) {
            ASSERT_TRUE(WriteFile(exe, "#!/bin/sh\n"));
        } else if (c.ui == DecisionCase::kDanglingExe) {
            ASSERT_EQ(symlink("cloud-quarn-ui.gone", exe.c_str()), 0);
        }
        LinuxService service;
        service.PreUpgrade();
        EXPECT_EQ(service.IsNeedUpgrade(), c.upgrade)
            << "source " << (c.source ? c.source : "(no INFO)") << ", target "
            << (c.target ? c.target : "(no INFO)") << ", ui " << c.ui;
    }
}

TEST_F(LinuxServiceTest, DecisionStepsAreLogged) {
    ASSERT_TRUE(WriteFile(app + "/INFO", InfoWithBuild("120")));
    ASSERT_TRUE(WriteFile(root + "/INFO", InfoWithBuild("121b")));
    LinuxService service;
    service.PreUpgrade();
    EXPECT_TRUE(service.IsNeedUpgrade());
    EXPECT_TRUE(Logged("DEBUG", kLinux, 60, "Source version: ('120', '7')\n"));
    EXPECT_TRUE(Logged("DEBUG", kLinux, 61, "Target version: ('121b', '7')\n"));
    EXPECT_TRUE(Logged("DEBUG", kLinux, 129, "source version = 120, target version = 121\n"));
    const std::string log = Log();
    EXPECT_LT(log.find("target_version ="), log.find("source_version ="))
        << "the package is read before the user's copy";
}

// ---- stopping the client ----

TEST_F(LinuxServiceTest, ClientThatEndsOnSigtermIsStoppedWithinTheFirstSecond) {
    Child ui(RunUntilSignalled);
    WritePid("# written by the client\npid = \"" + std::to_string(ui.pid()) + "\"  # running\n");
    EXPECT_LT(TimedStop(), 1.8);
    const int status = ui.Wait();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

volatile sig_atomic_t g_term_seen = 0;

// Ends 1.5 s after SIGTERM: the probes at 0 s and 1 s find it alive, the one after the second
// sleep finds it gone.
TEST_F(LinuxServiceTest, ClientThatEndsAboutTwoSecondsAfterSigtermIsNotKilled) {
    Child ui([] {
        signal(SIGTERM, [](int) { g_term_seen = 1; });
        sigset_t term, others;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        sigprocmask(SIG_BLOCK, &term, &others);
        Child::SignalReady();
        while (!g_term_seen) {
            sigsuspend(&others);
        }
        usleep(1500 * 1000);
        _exit(7);
    });
    WritePid("pid=" + std::to_string(ui.pid()) + "\n");
    const double took = TimedStop();
    const int status = ui.Wait();
    ASSERT_TRUE(WIFEXITED(status)) << "ended by a signal: " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_GE(took, 1.5);
    EXPECT_LT(took, 3.5) << "the stop returns at the first probe that finds the client gone";
}

TEST_F(LinuxServiceTest, ClientThatIgnoresSigtermIsKilledAfterFiveSeconds) {
    Child ui([] {
        signal(SIGTERM, SIG_IGN);
        Child::SignalReady();
        for (;;) {
            pause();
        }
    });
    WritePid("pid='" + std::to_string(ui.pid()) + "'\n");
    const double took = TimedStop();
    const int status = ui.Wait();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_GE(took, 4.9);
    EXPECT_LT(took, 7.0);
}

TEST_F(LinuxServiceTest, StalePidReturnsAtOnce) {
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    ASSERT_GT(gone, 0);
    waitpid(gone, nullptr, 0);
    WritePid("pid=" + std::to_string(gone) + "\n");
    EXPECT_LT(TimedStop(), 0.5);
    EXPECT_EQ(Log().find("[ERROR]"), std::string::npos);
}

TEST_F(LinuxServiceTest, MissingMalformedOrUnreadablePidFileStopsNothing) {
    TimedStop();
    EXPECT_TRUE(Logged("DEBUG", kLinux, 76,
                       "pid file '" + PidFile() + "' does not exist, no need to terminate\n"));

    Child ui(RunUntilSignalled);
    WritePid("pid " + std::to_string(ui.pid()) + "\n");
    EXPECT_LT(TimedStop(), 0.5);
    EXPECT_TRUE(
        Logged("NOTE", kLinux, 81, "Failed to read pid file '" + PidFile() + "', not exist ?\n"));
    EXPECT_EQ(kill(ui.pid(), 0), 0) << "nothing was signalled";

    // Readable for root only: an ordinary user cannot read it.
    WritePid("pid=" + std::to_string(ui.pid()) + "\n");
    ASSERT_EQ(chmod(PidFile().c_str(), 0600), 0);
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    const size_t notes = CountInLog("[NOTE] linux-service.cpp(81)");
    EXPECT_EQ(testsupport::RunAsUnprivileged([this] {
                  LinuxService service;
                  service.StopService();
                  return 0;
              }),
              0);
    EXPECT_EQ(CountInLog("[NOTE] linux-service.cpp(81)"), notes + 1);
    EXPECT_EQ(kill(ui.pid(), 0), 0);
}

// A pid file that names no process (0, a negative id, text, no pid key) must signal nothing:
// a signal to 0 or to a negative id would reach a whole process group. Each stop runs in a
// child that leads its own process group with a member that must survive.
TEST_F(LinuxServiceTest, PidThatNamesNoProcessSignalsNoProcessGroup) {
    for (const char* line : {"pid=0", "pid=abc", "pid=-0", "other=12", "pid=''"}) {
        WritePid(std::string(line) + "\n");
        const int rc = testsupport::RunInChild([] {
            setpgid(0, 0);
            return StopLeavesOtherProcessAlive();
        });
        EXPECT_EQ(rc, 0) << line << ": the group was signalled";
    }

    // -1 would reach every process the user may signal: try it as an ordinary user, whose
    // only other process is the one that must survive.
    for (const char* line : {"pid=-1", "pid= -2"}) {
        WritePid(std::string(line) + "\n");
        ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
        const int rc = testsupport::RunAsUnprivileged(StopLeavesOtherProcessAlive);
        EXPECT_EQ(rc, 0) << line;
    }
    EXPECT_EQ(Log().find("[ERROR]"), std::string::npos);
}

TEST_F(LinuxServiceTest, SigtermNotPermittedIsLoggedAndTheWaitGoesOn) {
    Child ui(RunUntilSignalled);
    WritePid("pid=" + std::to_string(ui.pid()) + "\n");
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    // The client ends by other means during the wait; the stop notices at its next probe.
    std::thread ender([&ui] {
        usleep(300 * 1000);
        kill(ui.pid(), SIGKILL);
    });
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(testsupport::RunAsUnprivileged([] {
                  LinuxService service;
                  service.StopService();
                  return 0;
              }),
              0);
    const double took = SecondsSince(start);
    ender.join();
    EXPECT_GE(took, 0.9) << "the wait ran after the refused SIGTERM";
    EXPECT_LT(took, 3.0);
    EXPECT_TRUE(Logged("ERROR", kLinux, 96, "kill: Operation not permitted (1)\n"));
}

// ---- the upgrade step and the start of the client ----

TEST_F(LinuxServiceTest, UpgradeStopsTheRunningClientThenInstalls) {
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    ASSERT_TRUE(WriteFile(app + "/INFO", InfoWithBuild("120")));
    ASSERT_TRUE(WriteFile(app + "/bin/cloud-quarn-ui", "old"));
    Child ui(RunUntilSignalled);
    WritePid("pid=" + std::to_string(ui.pid()) + "\n");
    LinuxService service;
    service.PreUpgrade();
    ASSERT_TRUE(service.IsNeedUpgrade());
    EXPECT_EQ(service.HandlePackageUpgrade(), 0);
    EXPECT_TRUE(WIFSIGNALED(ui.Wait()));
    EXPECT_TRUE(Logged("DEBUG", kLinux, 143, "local appdata exist\n"));
    EXPECT_EQ(Snapshot(app), Snapshot(Package()));
    EXPECT_FALSE(fs::exists(app + "_tmp"));
}

TEST_F(LinuxServiceTest, WithoutTheUiExecutableNothingIsStopped) {
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    ASSERT_TRUE(WriteFile(app + "/INFO", InfoWithBuild("121")));
    Child ui(RunUntilSignalled);
    WritePid("pid=" + std::to_string(ui.pid()) + "\n");
    LinuxService service;
    EXPECT_EQ(service.HandlePackageUpgrade(), 0);
    EXPECT_EQ(kill(ui.pid(), 0), 0);
    EXPECT_EQ(Log().find("local appdata exist"), std::string::npos);
    EXPECT_EQ(Snapshot(app), Snapshot(Package()));
}

TEST_F(LinuxServiceTest, PostUpgradeStartsTheUserCopyAndReturns) {
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    LinuxService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    // The started client leaves the script's process tree; adopt it so it can be reaped.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const Clock::time_point start = Clock::now();
    service.PostUpgrade();
    EXPECT_LT(SecondsSince(start), 2.0) << "the start script returns at once";
    std::string pid_line;
    while (SecondsSince(start) < 5.0 && pid_line.empty()) {
        pid_line = testsupport::ReadFile(PidFile());
        usleep(20 * 1000);
    }
    ASSERT_EQ(pid_line.rfind("pid=", 0), 0u) << pid_line;
    const pid_t pid = static_cast<pid_t>(atoi(pid_line.c_str() + 4));
    ASSERT_GT(pid, 0);
    // And the stop sequence ends it again.
    std::thread reaper([pid] {
        // It may take a moment until the client is handed over to this process.
        for (int i = 0; i < 500 && waitpid(pid, nullptr, 0) < 0; ++i) {
            usleep(10 * 1000);
        }
    });
    EXPECT_LT(TimedStop(), 1.8);
    reaper.join();
    EXPECT_NE(kill(pid, 0), 0);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(LinuxServiceTest, MissingStartScriptIsIgnored) {
    LinuxService service;
    EXPECT_EQ(service.LaunchPerUserBin(), 0);
}

}  // namespace
