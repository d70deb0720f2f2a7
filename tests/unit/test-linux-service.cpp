// The Linux upgrade flow: upgrade decision, stopping the running client through its pid file,
// the upgrade step and the start of the user's copy.

#include <sys/prctl.h>

#include <atomic>

#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;

std::string Info(const std::string& build) {
    return "[Version]\nmajor_version=3\nminor_version=2\nbuild_version=" + build +
           "\nicon_overlay_version=7\n";
}

void Pause() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);  // SIGTERM waited, blocked, for its handler
    for (;;) {
        pause();
    }
}
void EndLater() {  // the probes at 0 s and 1 s find it alive, the next one finds it gone
    signal(SIGTERM, [](int) { usleep(1500 * 1000), _exit(7); });
    Pause();
}
void Ignore() {
    signal(SIGTERM, SIG_IGN);
    Pause();
}

// A real child running body, reaped at once so that a probe with signal 0 sees it gone.
struct Child {
    explicit Child(void (*body)()) {
        sigset_t term, old;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &term, &old);
        if ((pid = fork()) == 0) {
            body();
        }
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
        reaper = std::thread([this] { waitpid(pid, &status, 0), reaped = true; });
    }
    ~Child() { Wait(); }
    int Wait() {
        if (reaper.joinable()) {
            reaped ? 0 : kill(pid, SIGKILL);
            reaper.join();
        }
        return status;
    }
    pid_t pid;
    int status = -1;
    std::atomic<bool> reaped{false};
    std::thread reaper;
};

class LinuxServiceTest : public ServiceTest {
protected:
    std::string PidFile() const { return quarn + "/ui.pid"; }
};

TEST_F(LinuxServiceTest, UpgradeDecisionFollowsBuildsAndTheUiExecutable) {
    enum Ui { kExe, kNoExe, kDangling };
    const struct {
        const char *source, *target;  // nullptr: no INFO file
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
        {"120", "121b", kExe, true},
    };
    const std::string exe = app + "/bin/cloud-quarn-ui";
    std::string pad;  // a new size each time: the settings reader may cache a file of equal size
    for (const auto& c : cases) {
        testsupport::RemoveTree(quarn);
        fs::remove(root + "/INFO");
        pad += "\n";
        ASSERT_TRUE(!c.source || WriteFile(app + "/INFO", Info(c.source) + pad));
        ASSERT_TRUE(!c.target || WriteFile(root + "/INFO", Info(c.target) + pad));
        ASSERT_TRUE(MakeDirs(app + "/bin") && (c.ui != kExe || WriteFile(exe, "#!/bin/sh\n")));
        ASSERT_TRUE(c.ui != kDangling || symlink("gone", exe.c_str()) == 0);
        LinuxService service;
        service.PreUpgrade();
        EXPECT_EQ(service.IsNeedUpgrade(), c.upgrade) << c.source << " " << c.target << c.ui;
    }
    const char* const kCloud = "cloud-service.cpp";
    EXPECT_TRUE(Logged("source does not exist\n", "INFO", kCloud, 172));
    EXPECT_TRUE(Logged("target_version = (, , , )\n", "INFO", kCloud, 207));
    EXPECT_TRUE(Logged("target_version = (3, 2, 121b, 7)\n", "INFO", kCloud, 207));
    EXPECT_TRUE(Logged("source_version = (3, 2, 120, 7)\n", "INFO", kCloud, 188));
    EXPECT_TRUE(Logged("Source version: ('120', '7')\n", "DEBUG", "linux-service.cpp", 60));
    EXPECT_TRUE(Logged("Target version: ('121b', '7')\n", "DEBUG", "linux-service.cpp", 61));
    EXPECT_TRUE(
        Logged("source version = 120, target version = 121\n", "DEBUG", "linux-service.cpp", 129));
    const std::string log = ReadFile(log_path);
    EXPECT_LT(log.rfind("target_version ="), log.rfind("source_version =")) << "package first";
}

// Ends on SIGTERM: stopped at once. Ends 1.5 s later: waited for, not killed. Ignores it:
// killed after five seconds.
TEST_F(LinuxServiceTest, StopWaitsForTheClientAndKillsOnlyOneThatIgnoresSigterm) {
    const struct {
        void (*body)();
        const char* line;
        int status;
        double min_s;
    } cases[] = {{Pause, "# by the client\npid = \"%d\"  # running\n", SIGTERM, 0},
                 {EndLater, "pid=%d\n", 7 << 8, 1.5},
                 {Ignore, "pid='%d'\n", SIGKILL, 4.9}};
    for (const auto& c : cases) {
        Child ui(c.body);
        char line[64];
        snprintf(line, sizeof line, c.line, ui.pid);
        ASSERT_TRUE(WriteFile(PidFile(), line));
        const Clock::time_point start = Clock::now();
        LinuxService().StopService();
        EXPECT_GE(SecondsSince(start), c.min_s) << line;
        EXPECT_EQ(ui.Wait(), c.status) << line;
    }
}

// Stops as an ordinary user leading its own process group, beside a member of it; a line with
// '=' is written as the pid file, with the member's pid plus offset for %lld ("self": the
// stopper's pid). 0 when nothing was signalled; a stop that blocks ends on the alarm.
int StopSignalsNothing(const std::string& pid_file, const std::string& line, long long offset) {
    setpgid(0, 0);
    const pid_t member = fork();
    if (member == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Pause();
    }
    char text[64];
    snprintf(text, sizeof text, line == "self" ? "pid=%lld\n" : (line + "\n").c_str(),
             line == "self" ? getpid() : member + offset);
    if ((line == "self" || line.find('=') != std::string::npos) && !WriteFile(pid_file, text)) {
        return 3;
    }
    alarm(20);
    LinuxService().StopService();
    usleep(50 * 1000);
    const bool alive = waitpid(member, nullptr, WNOHANG) == 0;
    kill(member, SIGKILL);
    return alive ? 0 : 2;
}

// Missing, malformed, unreadable, a FIFO, stale, pids 0, -0 or negative (a whole group), out of
// a pid's range (cut to 32 bits they name the member), the launcher's own: nothing signalled.
TEST_F(LinuxServiceTest, PidFileNamingNoLiveProcessStopsNothingAtOnce) {
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);
    ASSERT_TRUE(MakeDirs(quarn) && chmod(base.path().c_str(), 0755) == 0);
    ASSERT_EQ(chown(quarn.c_str(), 65534, 65534), 0);
    const std::string note = "Failed to read pid file '" + PidFile() + "', not exist ?\n",
                      missing =
                          "pid file '" + PidFile() + "' does not exist, no need to terminate\n";
    const struct {
        std::string line;  // "root": readable for root only; "fifo"; "": no file
        long long offset;
        size_t notes, missing;
    } cases[] = {
        {"", 0, 0, 1},
        {"fifo", 0, 1, 0},
        {"root", 0, 1, 0},
        {"x y=%lld", 0, 1, 0},
        {"pid=0", 0, 0, 0},
        {"pid=-0", 0, 0, 0},
        {"pid=abc", 0, 0, 0},
        {"pid=''", 0, 0, 0},
        {"other=%lld", 0, 0, 0},
        {"pid=-1", 0, 0, 0},
        {"pid= -2", 0, 0, 0},
        {"self", 0, 0, 0},
        {"pid=%lld", 1LL << 32, 0, 0},
        {"pid=%lld", -(1LL << 32), 0, 0},
        {"pid=" + std::to_string(gone), 0, 0, 0},
    };
    for (const auto& c : cases) {
        fs::remove(PidFile());
        ASSERT_TRUE(c.line != "root" ||
                    (WriteFile(PidFile(), "pid=1\n") && chmod(PidFile().c_str(), 0600) == 0));
        ASSERT_TRUE(c.line != "fifo" || mkfifo(PidFile().c_str(), 0666) == 0);
        const size_t notes = Logged(note, "NOTE", "linux-service.cpp", 81),
                     missings = Logged(missing, "DEBUG", "linux-service.cpp", 76);
        EXPECT_EQ(testsupport::RunAsUnprivileged(
                      [&] { return StopSignalsNothing(PidFile(), c.line, c.offset); }),
                  0)
            << c.line << c.offset;
        EXPECT_EQ(Logged(note, "NOTE", "linux-service.cpp", 81), notes + c.notes) << c.line;
        EXPECT_EQ(Logged(missing, "DEBUG", "linux-service.cpp", 76), missings + c.missing);
    }
    EXPECT_EQ(Logged("is out of range, nothing to stop\n"), 2u);
    EXPECT_EQ(Logged("[ERROR]"), 0u);
}

// The running client is stopped before the install, but only when the user's copy has its UI.
TEST_F(LinuxServiceTest, UpgradeStopsTheRunningClientThenInstalls) {
    for (const bool has_ui : {true, false}) {
        testsupport::RemoveTree(quarn);
        ASSERT_TRUE(MakeSampleInstall("121") && WriteFile(app + "/INFO", Info("120")));
        ASSERT_TRUE(!has_ui || WriteFile(app + "/bin/cloud-quarn-ui", "old"));
        Child ui(Pause);
        ASSERT_TRUE(WriteFile(PidFile(), "pid=" + std::to_string(ui.pid) + "\n"));
        EXPECT_EQ(LinuxService().HandlePackageUpgrade(), 0);
        EXPECT_EQ(kill(ui.pid, 0) != 0, has_ui);
        EXPECT_EQ(Logged("local appdata exist\n", "DEBUG", "linux-service.cpp", 143), 1u);
        EXPECT_EQ(Snapshot(app), Snapshot(Package()));
        EXPECT_FALSE(Exists(app + "_tmp"));
    }
}

TEST_F(LinuxServiceTest, PostUpgradeStartsTheUserCopyAndReturns) {
    EXPECT_EQ(LinuxService().LaunchPerUserBin(), 0) << "a missing start script is ignored";
    ASSERT_TRUE(MakeSampleInstall("121"));
    LinuxService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // adopt the started client, to reap it
    service.PostUpgrade();
    pid_t pid = 0;
    for (int i = 0; i < 500 && sscanf(ReadFile(PidFile()).c_str(), "pid=%d", &pid) != 1; ++i) {
        usleep(20 * 1000);
    }
    ASSERT_GT(pid, 0) << "the started client writes its pid file within 10 s";
    std::thread reaper([pid] { waitpid(pid, nullptr, 0); });
    service.StopService();
    reaper.join();
    EXPECT_NE(kill(pid, 0), 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
