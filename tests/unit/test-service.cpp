// The upgrade service; its copy and roll-back are proved under faults in upgrade-faults.cpp.
#include <fcntl.h>
#include <sys/prctl.h>

#include <atomic>
#include <regex>
#include <thread>

#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/linux/linux-service.h"
#include "tests/support/test-support.h"

using namespace testsupport;

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("HOME", home.c_str(), 1);
        unsetenv("XDG_CURRENT_DESKTOP");
        FillQuarnPathTable(&Service::GetUserInstallPath, QString::fromStdString(root + "/bin"));
    }

    TempDir base;
    const std::string home = base / "home", root = base / "opt", quarn = home + "/.CorvaneQuarn",
                      app = quarn + "/CorvaneQuarn.app";
};

// The Deepin desktop, exactly so named, with a data folder set: that folder; else the home.
TEST_F(ServiceTest, InstallRootIsHomeUnlessExactlyDeepinWithDataHome) {
    const std::pair<const char*, const char*> cases[] = {{"deepin", "/d"},
                                                         {"Deepin:GNOME", "/d"},
                                                         {"Deepin", ""},
                                                         {"GNOME", "/d"},
                                                         {"Deepin", "/d"}};
    for (const auto& [desktop, data] : cases) {
        setenv("XDG_CURRENT_DESKTOP", desktop, 1);
        setenv("XDG_DATA_HOME", data, 1);
        EXPECT_EQ(Service::GetUserInstallPath().toStdString(),
                  !strcmp(desktop, "Deepin") && *data ? data : home);
    }
}

// A newer package build, or a copy without its UI executable, is upgraded.
TEST_F(ServiceTest, UpgradeDecisionFollowsBuildsAndTheUiExecutable) {
    const bool ui = true, no_ui = false, upgrade = true, keep = false;
    // The copy's and the package's build ("": no INFO, "fifo": a FIFO in its place).
    const std::tuple<const char*, const char*, bool, bool> cases[] = {
        {"120", "121", ui, upgrade}, {"121", "121", ui, keep},      {"121", "121", no_ui, upgrade},
        {"121", "120", ui, keep},    {"120x", "121y", ui, upgrade}, {"", "1", ui, upgrade},
        {"3", "", ui, keep},         {"fifo", "121", ui, upgrade}};
    for (const auto& [source, target, has_ui, want] : cases) {
        fs::remove_all(home);
        fs::remove(root + "/INFO");
        fs::create_directories(app);
        for (auto [path, build] : {std::pair(app + "/INFO", source), {root + "/INFO", target}})
            ASSERT_TRUE(!*build ||
                        (!strcmp(build, "fifo")
                             ? mkfifo(path.c_str(), 0600) == 0
                             : WriteFile(path, "[Version]\nbuild_version=" + std::string(build))));
        ASSERT_TRUE(WriteFile(app + (has_ui ? "/bin/cloud-quarn-ui" : "/bin/other"), ""));
        LinuxService service;
        service.PreUpgrade();
        EXPECT_EQ(service.IsNeedUpgrade(), want) << source << " " << target << has_ui;
    }
}

// Each byte of an INFO value is one character ("é": "Ã©") in Qt 6 too; Qt 5 alone reads "\xe9".
TEST_F(ServiceTest, InfoValuesTakeEachByteForOneCharacter) {
    ASSERT_TRUE(
        WriteFile(root + "/INFO", "[Version]\nmajor_version=3 \xc3\xa9\nminor_version=\\xe9\n"));
    LinuxService service;
    service.LoadTargetVersion();
    EXPECT_EQ(service.target_version.major_version, "3 \xc3\x83\xc2\xa9");
    EXPECT_EQ(service.target_version.minor_version,
              QT_VERSION_MAJOR < 6 ? "\xc3\xa9" : "\xc3\x83\xc2\xa9");
}

// The installation from the package archive unpacks it into the user's copy.
TEST_F(ServiceTest, ExtractPackageUnpacksTheArchiveIntoTheCopy) {
    ASSERT_TRUE(WriteFile(base / "pkg/INFO", "[Version]\nbuild_version=121\n"));
    ASSERT_TRUE(MakeDirs(root + "/package"));
    const std::string tar = "tar -cf " + root + "/package/nimbrel.vbx -C " + base / "pkg INFO";
    ASSERT_EQ(0, system(tar.c_str()));
    EXPECT_EQ(0, LinuxService().ExtractPackage());
    EXPECT_EQ("[Version]\nbuild_version=121\n", ReadFile(app + "/INFO"));
}

// A package folder the user cannot read counts as copied: the rest of the package still comes.
TEST_F(ServiceTest, UnreadablePackageFolderCountsAsCopied) {
    ASSERT_TRUE(WriteFile(base / "pkg/closed/file", "x"));
    ASSERT_TRUE(WriteFile(base / "pkg/open", "x"));
    chmod((base / "pkg/closed").c_str(), 0);
    chmod(base.path().c_str(), 0777);
    const auto copy = [&] { return -LinuxService().FSCopyPath(base / "pkg", base / "copy"); };
    EXPECT_EQ(0, RunAsUnprivileged(copy));
    EXPECT_EQ("x", ReadFile(base / "copy/open"));
}

// A client that takes a while to end on SIGTERM.
static void EndSlowly(int) {
    usleep(1500 * 1000);
    _exit(7);
}

// Stops as the leader of a process group holding a member whose SIGTERM action is on_term. A
// line with '=' is the pid file, %lld the member's pid; "self", "+2^32", "-2^32" name the stopper
// or the member's pid plus or minus 2^32; dated, unless 0, is then the file's time. SIGUSR2 then
// ends the member if it still runs. Returns how it ended (the signal, or 64 + its exit code),
// plus 100 when the stop took five seconds.
static int Stop(const std::string& pid_file, const std::string& line, sighandler_t on_term,
                time_t dated) {
    setpgid(0, 0);
    signal(SIGTERM, on_term);  // before the fork: the member acts so from its first moment
    const pid_t member = fork();
    if (member == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;)
            pause();
    }
    signal(SIGTERM, SIG_DFL);
    const long long offset = line == "+2^32" ? 1LL << 32 : line == "-2^32" ? -(1LL << 32) : 0;
    char text[64];
    snprintf(text, sizeof text, offset || line == "self" ? "pid=%lld" : line.c_str(),
             line == "self" ? getpid() : member + offset);
    if (strchr(text, '=') && !WriteFile(pid_file, text))
        return 3;
    const timespec times[2] = {{dated, 0}, {dated, 0}};
    if (dated && utimensat(AT_FDCWD, pid_file.c_str(), times, 0) != 0)
        return 4;
    std::atomic<int> status{-1};  // reaped as soon as it ends, for the stop's probes
    std::thread reaper([&] {
        int ended;
        waitpid(member, &ended, 0);
        status = ended;
    });
    alarm(20);  // a stop that blocks
    const time_t start = time(nullptr);
    LinuxService().StopService();
    const int waited = time(nullptr) - start >= 5 ? 100 : 0;
    kill(member, SIGUSR2);
    reaper.join();
    return waited + (WIFSIGNALED(status) ? WTERMSIG(status) : 64 + WEXITSTATUS(status));
}

// Only the process that wrote ui.pid is signalled, and only one that ignores SIGTERM is killed.
TEST_F(ServiceTest, StopSignalsOnlyTheClientAndKillsOnlyOneThatIgnoresSigterm) {
    const std::string pid_file = quarn + "/ui.pid";
    ASSERT_TRUE(MakeDirs(quarn) && chown(quarn.c_str(), 65534, 65534) == 0);
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, base / "log", "", 50, Logger::SCOPE_THREAD));
    const auto stop = [&](const std::string& line, sighandler_t on_term = SIG_DFL,
                          time_t dated = 0) {
        fs::remove(pid_file);
        EXPECT_TRUE(line != "root" ||
                    (WriteFile(pid_file, "pid=1") && !chmod(pid_file.c_str(), 0600)));
        EXPECT_TRUE(line != "fifo" || mkfifo(pid_file.c_str(), 0666) == 0);
        return RunAsUnprivileged([&] { return Stop(pid_file, line, on_term, dated); });
    };
    for (const std::string line :
         {"", "fifo", "root", "x y=%lld", "pid=0", "pid=-0", "pid=abc", "pid=''", "other=%lld",
          "pid=-1", "pid= -2", "self", "+2^32", "-2^32"})
        EXPECT_EQ(stop(line), SIGUSR2) << line;
    // Dated before this boot, before the member started, or ahead of the clock.
    for (const time_t dated : {time_t{86400}, time(nullptr) - 10, time(nullptr) + 86400})
        EXPECT_EQ(stop("pid=%lld", SIG_DFL, dated), SIGUSR2) << dated;
    EXPECT_EQ(stop("# by the client\npid = \"%lld\"  # running\n"), SIGTERM);
    EXPECT_EQ(stop("pid=%lld", EndSlowly), 64 + 7);
    EXPECT_EQ(stop("pid='%lld'", SIG_IGN), 100 + SIGKILL);
    Logger::Destroy();
    // Only a WARNING for each file not read (FIFO, root's, syntax error) and member left alone.
    const std::string log = ReadFile(base / "log");
    const auto lines = [&](const char* pattern) {
        const std::regex line(pattern);
        return std::distance(std::sregex_iterator(log.begin(), log.end(), line), {});
    };
    EXPECT_EQ(lines("\\[WARNING\\] .*: old client not stopped: cannot read pid file '"), 3) << log;
    EXPECT_EQ(lines("\\[WARNING\\] .*: old client not stopped: .* cannot have written it"), 3);
    EXPECT_EQ(lines("\n"), 6) << log;
}

TEST_F(ServiceTest, MigrationMovesDataAndAlwaysRemovesTheOldFolderAgedAppEveryRun) {
    const std::string nimbrel = home + "/.Nimbrel";
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, base / "log", "", 50, Logger::SCOPE_THREAD));
    LinuxService service;
    for (const char* file : {"/data/db/sync.db", "/app/bin", "/data/old.db"}) {
        ASSERT_TRUE(WriteFile(nimbrel + file, file));  // the last one meets data already moved
        service.MigrateService();
        EXPECT_FALSE(fs::exists(nimbrel)) << file << ": the old folder stays";
    }
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "/data/db/sync.db");
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin/old-ui", "x") && WriteFile(nimbrel + "/data/k", "x"));
    service.RemoveAgedFolders();
    EXPECT_FALSE(fs::exists(nimbrel + "/app"));
    EXPECT_TRUE(fs::exists(nimbrel + "/data/k"));
    Logger::Destroy();
    EXPECT_EQ(ReadFile(base / "log").find("Failed to remove old"), std::string::npos);
}
