// The Linux upgrade flow: upgrade decision, stopping the running client through its pid file,
// the upgrade step and the start of the user's copy.

#include <sys/prctl.h>

#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;

const char* const kLinux = "linux-service.cpp";

std::string InfoWithBuild(const std::string& build) {
    return "[Version]\nmajor_version=3\nminor_version=2\nbuild_version=" + build +
           "\nicon_overlay_version=7\n";
}

// Takes SIGTERM as set up so far, and runs until a signal ends it.
void RunUntilSignalled() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (;;) {
        pause();
    }
}

// Ends 1.5 s after SIGTERM: the probes at 0 s and 1 s find it alive, the next one finds it gone.
void EndAfterSigterm() {
    signal(SIGTERM, [](int) {
        const timespec wait = {1, 500 * 1000 * 1000};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, nullptr);
        _exit(7);
    });
    RunUntilSignalled();
}

void IgnoreSigterm() {
    signal(SIGTERM, SIG_IGN);
    RunUntilSignalled();
}

// Stops, as an ordinary user leading its own process group, beside another member of it whose
// pid replaces %d in `line` (written unless empty or "keep"; "self" names the stopping process);
// 0 when the stop returned at once and both survived.
int StopSignalsNothing(const std::string& pid_file, const std::string& line) {
    setpgid(0, 0);
    const pid_t member = fork();
    if (member == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a stopper that got signalled
        for (;;) {
            pause();
        }
    }
    char text[64];
    snprintf(text, sizeof text, line == "self" ? "pid=%d\n" : line.c_str(),
             line == "self" ? getpid() : member);
    if (!line.empty() && line != "keep" && !WriteFile(pid_file, text)) {
        return 3;
    }
    const Clock::time_point start = Clock::now();
    LinuxService().StopService();
    const bool quick = SecondsSince(start) < 0.5;
    usleep(50 * 1000);
    const bool alive = waitpid(member, nullptr, WNOHANG) == 0;
    kill(member, SIGKILL);
    return !alive ? 1 : quick ? 0 : 2;
}

class LinuxServiceTest : public ServiceTest {
protected:
    std::string PidFile() const { return quarn + "/ui.pid"; }
    void WritePid(const std::string& text) { ASSERT_TRUE(WriteFile(PidFile(), text)); }
    double TimedStop() {
        const Clock::time_point start = Clock::now();
        LinuxService().StopService();
        return SecondsSince(start);
    }
};

TEST_F(LinuxServiceTest, UpgradeDecisionFollowsBuildsAndTheUiExecutable) {
    enum Ui { kExe, kNoExe, kDangling };
    const struct {
        const char* source;  // nullptr: no user INFO
        const char* target;  // nullptr: no system INFO
        Ui ui;
        bool upgrade;
    } cases[] = {
        {"120", "121", kExe, true},      {"121", "121", kExe, false},
        {"121", "121", kNoExe, true},    {"121", "120", kExe, false},
        {"121", "120", kNoExe, true},    {"121abc", "121", kExe, false},
        {"120abc", "121x", kExe, true},  {"abc", "1", kExe, true},
        {"", "1", kExe, true},           {nullptr, "1", kExe, true},
        {"3", nullptr, kExe, false},     {"3", nullptr, kNoExe, true},
        {nullptr, nullptr, kExe, false}, {"121", "121", kDangling, true},
        {"120", "121b", kExe, true},  // last: its log lines are checked below
    };
    const std::string exe = app + "/bin/cloud-quarn-ui";
    // Blank lines give every case's files a new size: the settings reader may take a file
    // rewritten within the same clock tick at the same size for unchanged.
    std::string pad;
    for (const auto& c : cases) {
        pad += "\n";
        testsupport::RemoveTree(quarn);
        fs::remove(root + "/INFO");
        ASSERT_TRUE(!c.source || WriteFile(app + "/INFO", InfoWithBuild(c.source) + pad));
        ASSERT_TRUE(!c.target || WriteFile(root + "/INFO", InfoWithBuild(c.target) + pad));
        ASSERT_TRUE(MakeDirs(app + "/bin"));
        ASSERT_TRUE(c.ui != kExe || WriteFile(exe, "#!/bin/sh\n"));
        ASSERT_TRUE(c.ui != kDangling || symlink("cloud-quarn-ui.gone", exe.c_str()) == 0);
        LinuxService service;
        service.PreUpgrade();
        EXPECT_EQ(service.IsNeedUpgrade(), c.upgrade)
            << "source " << c.source << ", target " << c.target << ", ui " << c.ui;
    }
    const char* const kCloud = "cloud-service.cpp";
    EXPECT_TRUE(Logged("INFO", kCloud, 172, "source does not exist\n"));
    EXPECT_TRUE(Logged("INFO", kCloud, 207, "target_version = (, , , )\n"));
    EXPECT_TRUE(Logged("INFO", kCloud, 207, "target_version = (3, 2, 121b, 7)\n"));
    EXPECT_TRUE(Logged("INFO", kCloud, 188, "source_version = (3, 2, 120, 7)\n"));
    EXPECT_TRUE(Logged("DEBUG", kLinux, 60, "Source version: ('120', '7')\n"));
    EXPECT_TRUE(Logged("DEBUG", kLinux, 61, "Target version: ('121b', '7')\n"));
    EXPECT_TRUE(Logged("DEBUG", kLinux, 129, "source version = 120, target version = 121\n"));
    const std::string log = Log();
    EXPECT_LT(log.rfind("target_version ="), log.rfind("source_version ="))
        << "the package is read before the user's copy";
}

// A client that ends on SIGTERM stops at once; one that ends 1.5 s later is waited for, not
// killed; one that ignores SIGTERM is killed after the fifth one-second sleep.
TEST_F(LinuxServiceTest, StopWaitsForTheClientAndKillsOnlyOneThatIgnoresSigterm) {
    const struct {
        void (*body)();
        const char* pid_line;  // with %d for the pid
        int status;            // as waitpid gives it
        double min_s, max_s;
    } cases[] = {
        {RunUntilSignalled, "# by the client\npid = \"%d\"  # running\n", SIGTERM, 0, 1.8},
        {EndAfterSigterm, "pid=%d\n", 7 << 8, 1.5, 3.5},
        {IgnoreSigterm, "pid='%d'\n", SIGKILL, 4.9, 7.0},
    };
    for (const auto& c : cases) {
        Child ui(c.body);
        char line[64];
        snprintf(line, sizeof line, c.pid_line, ui.pid());
        WritePid(line);
        const double took = TimedStop();
        EXPECT_EQ(ui.Wait(), c.status) << line;
        EXPECT_GE(took, c.min_s) << line;
        EXPECT_LT(took, c.max_s) << line;
    }
}

// A missing, malformed, unreadable or stale pid file, pids 0, -0 or negative (a signal to
// them would reach a whole process group, -1 every process of the user) and the launcher's
// own pid: nothing is signalled.
TEST_F(LinuxServiceTest, PidFileNamingNoLiveProcessStopsNothingAtOnce) {
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    ASSERT_GT(gone, 0);
    waitpid(gone, nullptr, 0);
    ASSERT_TRUE(MakeDirs(quarn));
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    ASSERT_EQ(chown(quarn.c_str(), 65534, 65534), 0);
    const std::string missing = "[DEBUG] linux-service.cpp(76): pid file '" + PidFile() +
                                "' does not exist, no need to terminate\n";
    const std::string unread =
        "[NOTE] linux-service.cpp(81): Failed to read pid file '" + PidFile() + "', not exist ?\n";
    const std::string stale = "pid=" + std::to_string(gone) + "\n";
    const struct {
        std::string line;  // "keep": a file readable for root only
        const std::string* logs;
    } cases[] = {
        {"", &missing},         {"pid %d\n", &unread},  {"keep", &unread},
        {stale, nullptr},       {"pid=0\n", nullptr},   {"pid=-0\n", nullptr},
        {"pid=abc\n", nullptr}, {"pid=''\n", nullptr},  {"other=%d\n", nullptr},
        {"pid=-1\n", nullptr},  {"pid= -2\n", nullptr}, {"self", nullptr},
    };
    for (const auto& c : cases) {
        fs::remove(PidFile());
        if (c.line == "keep") {
            ASSERT_TRUE(WriteFile(PidFile(), "pid=1\n") && chmod(PidFile().c_str(), 0600) == 0);
        }
        const size_t logged = c.logs ? CountInLog(*c.logs) : 0;
        EXPECT_EQ(
            testsupport::RunAsUnprivileged([&] { return StopSignalsNothing(PidFile(), c.line); }),
            0)
            << c.line;
        EXPECT_TRUE(!c.logs || CountInLog(*c.logs) == logged + 1) << c.line;
    }
    EXPECT_EQ(Log().find("[ERROR]"), std::string::npos);
}

// The running client is stopped before the install, but only when the user's copy has its UI.
TEST_F(LinuxServiceTest, UpgradeStopsTheRunningClientThenInstalls) {
    for (const bool has_ui : {true, false}) {
        testsupport::RemoveTree(quarn);
        ASSERT_TRUE(MakeSampleInstall("121") && WriteFile(app + "/INFO", InfoWithBuild("120")));
        ASSERT_TRUE(!has_ui || WriteFile(app + "/bin/cloud-quarn-ui", "old"));
        Child ui(RunUntilSignalled);
        WritePid("pid=" + std::to_string(ui.pid()) + "\n");
        EXPECT_EQ(LinuxService().HandlePackageUpgrade(), 0);
        EXPECT_EQ(kill(ui.pid(), 0) != 0, has_ui);
        EXPECT_EQ(CountInLog("[DEBUG] linux-service.cpp(143): local appdata exist\n"), 1u);
        EXPECT_EQ(Snapshot(app), Snapshot(Package()));
        EXPECT_FALSE(Exists(app + "_tmp"));
    }
}

TEST_F(LinuxServiceTest, PostUpgradeStartsTheUserCopyAndReturns) {
    EXPECT_EQ(LinuxService().LaunchPerUserBin(), 0) << "a missing start script is ignored";
    ASSERT_TRUE(MakeSampleInstall("121"));
    LinuxService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    // The started client leaves the script's process tree; adopt it so it can be reaped.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const Clock::time_point start = Clock::now();
    service.PostUpgrade();
    EXPECT_LT(SecondsSince(start), 2.0) << "the start script returns at once";
    pid_t pid = 0;
    while (SecondsSince(start) < 5.0 && sscanf(ReadFile(PidFile()).c_str(), "pid=%d", &pid) != 1) {
        usleep(20 * 1000);
    }
    ASSERT_GT(pid, 0) << "the started client writes its pid file";
    std::thread reaper([pid] {  // the client may take a moment to be handed over
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

}  // namespace
