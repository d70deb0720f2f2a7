// The Linux upgrade flow: the upgrade decision and stopping the client through its pid file.
// Stopping and starting the client around a whole upgrade is the end-to-end tests' part.

#include <sys/prctl.h>

#include <atomic>
#include <thread>

#include "tests/unit/service-test-env.h"

using namespace servicetest;
using LinuxServiceTest = ServiceTest;

[[noreturn]] static void Idle() {  // a child that waits for signals for good
    for (;;)
        pause();
}

TEST_F(LinuxServiceTest, UpgradeDecisionFollowsBuildsAndTheUiExecutable) {
    const struct {
        const char *source, *target;  // "": no INFO file
        bool ui, upgrade;
    } cases[] = {{"120", "121", 1, 1}, {"121", "121", 1, 0},   {"121", "121", 0, 1},
                 {"121", "120", 1, 0}, {"120x", "121y", 1, 1}, {"", "1", 1, 1},
                 {"3", "", 1, 0}};
    for (const auto& c : cases) {
        testsupport::RemoveTree(base / "home"), fs::remove(root + "/INFO");
        for (auto [path, build] : {std::pair(app + "/INFO", c.source), {root + "/INFO", c.target}})
            ASSERT_TRUE(!*build ||
                        WriteFile(path, "[Version]\nbuild_version=" + std::string(build)));
        ASSERT_TRUE(WriteFile(app + (c.ui ? "/bin/cloud-quarn-ui" : "/bin/other"), ""));
        LinuxService service;
        service.PreUpgrade();
        EXPECT_EQ(service.IsNeedUpgrade(), c.upgrade) << c.source << " " << c.target << c.ui;
    }
}

// A client that ends on SIGTERM is stopped at once; one that ends 1.5 s later is waited for, not
// killed; one that ignores SIGTERM is killed after five seconds. SIGTERM is held until the
// client has set up its handling; a reaper makes it gone as soon as it ends, for the probes.
TEST_F(LinuxServiceTest, StopWaitsForTheClientAndKillsOnlyOneThatIgnoresSigterm) {
    const struct {
        void (*handle)();
        const char* line;
        int status;
        bool waits;  // for the five one-second passes
    } cases[] = {
        {[] {}, "# by the client\npid = \"%d\"  # running\n", SIGTERM, false},
        {[] { signal(SIGTERM, [](int) { usleep(1500 * 1000), _exit(7); }); }, "pid=%d", 7 << 8, 0},
        {[] { signal(SIGTERM, SIG_IGN); }, "pid='%d'", SIGKILL, true}};
    sigset_t term;
    sigemptyset(&term), sigaddset(&term, SIGTERM);
    for (const auto& c : cases) {
        sigprocmask(SIG_BLOCK, &term, nullptr);
        const pid_t pid = fork();
        if (pid == 0)
            c.handle(), sigprocmask(SIG_UNBLOCK, &term, nullptr), Idle();
        sigprocmask(SIG_UNBLOCK, &term, nullptr);
        std::atomic<int> status{-1};
        std::thread reaper([&] {
            int ended;
            waitpid(pid, &ended, 0), status = ended;
        });
        char line[64];
        snprintf(line, sizeof line, c.line, pid);
        ASSERT_TRUE(WriteFile(quarn + "/ui.pid", line));
        const time_t start = time(nullptr);
        LinuxService().StopService();
        EXPECT_EQ(time(nullptr) - start >= 5, c.waits) << line;
        for (int i = 0; i < 100 && status == -1; ++i)
            usleep(10 * 1000);
        if (status == -1)
            kill(pid, SIGUSR1);  // still running a second after the stop
        reaper.join();
        EXPECT_EQ(status, c.status) << line;
    }
}

// Stops as an ordinary user leading its own process group, beside a member of it; a line with
// '=' is the pid file, %lld the member's pid ("self": the stopper's pid; "+2^32", "-2^32": the
// member's pid plus or minus 2^32). 0 when nothing was signalled; a stop that blocks ends on the
// alarm.
static int StopSignalsNothing(const std::string& pid_file, const std::string& line) {
    setpgid(0, 0);
    const pid_t member = fork();
    if (member == 0)
        prctl(PR_SET_PDEATHSIG, SIGKILL), Idle();
    const long long offset = line == "+2^32" ? 1LL << 32 : line == "-2^32" ? -(1LL << 32) : 0;
    char text[64];
    snprintf(text, sizeof text, offset || line == "self" ? "pid=%lld" : line.c_str(),
             line == "self" ? getpid() : member + offset);
    if (strchr(text, '=') && !WriteFile(pid_file, text))
        return 3;
    alarm(20);
    LinuxService().StopService();
    usleep(50 * 1000);
    return waitpid(member, nullptr, WNOHANG) == 0 ? 0 : 2;
}

// Missing, malformed, unreadable, a FIFO, stale, pids 0, -0 or negative (a whole group), out of
// a pid's range (cut to 32 bits they name the member), the launcher's own: nothing signalled.
// The unreadable and malformed ones say so.
TEST_F(LinuxServiceTest, PidFileNamingNoLiveProcessStopsNothingAtOnce) {
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    const std::string pid_file = quarn + "/ui.pid", stale = "pid=" + std::to_string(gone),
                      note = "[NOTE] linux-service.cpp(81): Failed to read pid file '" + pid_file;
    ASSERT_TRUE(testsupport::MakeDirs(quarn) && chown(quarn.c_str(), 65534, 65534) == 0);
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    for (const std::string line :
         {"", "fifo", "root", "x y=%lld", "pid=0", "pid=-0", "pid=abc", "pid=''", "other=%lld",
          "pid=-1", "pid= -2", "self", "+2^32", "-2^32", stale.c_str()}) {
        fs::remove(pid_file);
        ASSERT_TRUE(line != "root" ||
                    (WriteFile(pid_file, "pid=1") && !chmod(pid_file.c_str(), 0600)));
        ASSERT_TRUE(line != "fifo" || mkfifo(pid_file.c_str(), 0666) == 0);
        const size_t notes =
            Logged(note) + (line == "fifo" || line == "root" || line == "x y=%lld");
        EXPECT_EQ(
            testsupport::RunAsUnprivileged([&] { return StopSignalsNothing(pid_file, line); }), 0)
            << line;
        EXPECT_EQ(Logged(note + "', not exist ?\n"), notes) << line;
    }
    EXPECT_EQ(Logged("(76): pid file '" + pid_file + "' does not exist, no need to terminate\n"),
              1u);
    EXPECT_EQ(Logged("is out of range, nothing to stop\n"), 2u);
    EXPECT_EQ(Logged("[ERROR]"), 0u);
}
