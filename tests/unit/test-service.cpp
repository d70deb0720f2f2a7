// The upgrade service: the install root, the upgrade decision, stopping the client through its
// pid file, and the predecessor's folders. The copy with its backups and roll-back is proved
// under faults by tests/integration/upgrade-faults; the client's start by the end-to-end tests.

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/linux/linux-service.h"
#include "tests/support/test-support.h"

namespace fs = std::filesystem;
using namespace testsupport;

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("HOME", home.c_str(), 1);
        unsetenv("XDG_CURRENT_DESKTOP");
        FillQuarnPathTable(&Service::GetUserInstallPath, QString::fromStdString(root + "/bin"));
        ASSERT_TRUE(WriteFile(base / "debug", "service_debug = 7\n"));
        Logger::Initialize(Logger::TYPE_FILE, base / "log", base / "debug", 50,
                           Logger::SCOPE_THREAD);
    }
    void TearDown() override { Logger::Destroy(); }
    size_t Logged(const std::string& text) const {  // how often the log holds text
        const std::string log = ReadFile(base / "log");
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++n;
        return n;
    }

    TempDir base;
    const std::string home = base / "home", root = base / "opt", quarn = home + "/.CorvaneQuarn",
                      app = quarn + "/CorvaneQuarn.app";
};

[[noreturn]] static void Idle() {  // a child that waits for signals for good
    for (;;)
        pause();
}

// The Deepin desktop, exactly so named, with a data folder set: that folder; else the home.
TEST_F(ServiceTest, InstallRootIsHomeUnlessExactlyDeepinWithDataHome) {
    for (const auto& [desktop, data] : {std::pair("deepin", "/d"),
                                        {"Deepin:GNOME", "/d"},
                                        {"Deepin", ""},
                                        {"GNOME", "/d"},
                                        {"Deepin", "/d"}}) {
        setenv("XDG_CURRENT_DESKTOP", desktop, 1), setenv("XDG_DATA_HOME", data, 1);
        EXPECT_EQ(Service::GetUserInstallPath().toStdString(),
                  !strcmp(desktop, "Deepin") && *data ? data : home);
    }
    unsetenv("XDG_DATA_HOME");
}

TEST_F(ServiceTest, UpgradeDecisionFollowsBuildsAndTheUiExecutable) {
    const struct {
        const char *source, *target;  // "": no INFO file
        bool ui, upgrade;
    } cases[] = {{"120", "121", 1, 1}, {"121", "121", 1, 0},   {"121", "121", 0, 1},
                 {"121", "120", 1, 0}, {"120x", "121y", 1, 1}, {"", "1", 1, 1},
                 {"3", "", 1, 0}};
    for (const auto& c : cases) {
        RemoveTree(home), fs::remove(root + "/INFO");
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
TEST_F(ServiceTest, StopWaitsForTheClientAndKillsOnlyOneThatIgnoresSigterm) {
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
TEST_F(ServiceTest, PidFileNamingNoLiveProcessStopsNothingAtOnce) {
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    const std::string pid_file = quarn + "/ui.pid", stale = "pid=" + std::to_string(gone);
    ASSERT_TRUE(MakeDirs(quarn) && chown(quarn.c_str(), 65534, 65534) == 0);
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    for (const std::string line :
         {"", "fifo", "root", "x y=%lld", "pid=0", "pid=-0", "pid=abc", "pid=''", "other=%lld",
          "pid=-1", "pid= -2", "self", "+2^32", "-2^32", stale.c_str()}) {
        fs::remove(pid_file);
        ASSERT_TRUE(line != "root" ||
                    (WriteFile(pid_file, "pid=1") && !chmod(pid_file.c_str(), 0600)));
        ASSERT_TRUE(line != "fifo" || mkfifo(pid_file.c_str(), 0666) == 0);
        EXPECT_EQ(RunAsUnprivileged([&] { return StopSignalsNothing(pid_file, line); }), 0) << line;
    }
    EXPECT_EQ(Logged("is out of range, nothing to stop\n"), 2u);
}

TEST_F(ServiceTest, MigrationMovesDataAndAlwaysRemovesTheOldFolderAgedAppEveryRun) {
    const std::string nimbrel = home + "/.Nimbrel";
    LinuxService service;
    service.MigrateService();  // nothing to migrate: only the new folder is made
    EXPECT_TRUE(fs::is_directory(quarn) && fs::is_empty(quarn));
    for (const char* file : {"/data/db/sync.db", "/app/bin", "/data/old.db"}) {
        ASSERT_TRUE(WriteFile(nimbrel + file, file));  // the last one meets data already moved
        service.MigrateService();
        EXPECT_FALSE(fs::exists(nimbrel))
            << file << ": the old folder goes also after a failed move";
    }
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "/data/db/sync.db");
    EXPECT_EQ(Logged("[ERROR]"), 1u);
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin/old-ui", "x") && WriteFile(nimbrel + "/data/k", "x"));
    service.RemoveAgedFolders();
    EXPECT_FALSE(fs::exists(nimbrel + "/app"));
    EXPECT_TRUE(fs::exists(nimbrel + "/data/k"));
}
