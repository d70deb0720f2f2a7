// The upgrade under injected faults and kills. A round puts the old copy (build 120, with a data
// folder and a pid file naming 2^32 + a sentinel's pid) in the home, runs the worker's upgrade
// (no client start) in a fresh process with fault-shim.c failing its k-th file-system call or
// sending it SIGKILL there, then once cleanly, and asserts: no hang, no crash, both sentinels
// (one in the runs' process group, one in its own) alive, the data untouched, the user copy the
// package or the old one, or one of the kept outcomes, counted. UPGRADE_FAULTS_LONG=1: every
// errno once and lasting at every point, and 200 kills; else one of them a point, and 10 kills.

#include <sys/prctl.h>

#include <random>

#include "tests/unit/service-test-env.h"

using namespace servicetest;
static const char* g_self;

TEST_F(ServiceTest, UpgradeUnderEveryFaultKeepsTheUserCopyWhole) {
    Install(true);
    ASSERT_TRUE(WriteFile(quarn + "/data/db", "rows"));
    ASSERT_TRUE(WriteFile(Package() + "/lib/a.so", std::string(40000, 'n')));
    pid_t sentinels[2];
    for (pid_t& sentinel : sentinels) {
        if ((sentinel = fork()) == 0)
            for (setpgid(0, 0), prctl(PR_SET_PDEATHSIG, SIGKILL);;)
                pause();
        setpgid(sentinel, sentinel);
    }
    ASSERT_TRUE(WriteFile(quarn + "/ui.pid", "pid=" + std::to_string((1LL << 32) + sentinels[1])));
    ASSERT_EQ(system(("cp -a $Q " + base / "old").c_str()), 0);
    TreeSnapshot old = Snapshot(app), package = Snapshot(Package()),
                 data = Snapshot(quarn + "/data"), both = package;
    both.insert(old.begin(), old.end());
    const auto run = [&](const std::string& fault, const char* count) {  // its wait status
        const pid_t pid = fork();
        if (pid == 0) {
            const char* asan = getenv("ASAN_OPTIONS");  // the shim comes before the sanitizer
            setenv("ASAN_OPTIONS",
                   (std::string(asan ? asan : "") + ":verify_asan_link_order=0").c_str(), 1);
            setenv("FAULT", fault.c_str(), 1), setenv("FAULT_COUNT", (base / count).c_str(), 1);
            setenv("FAULT_ROOT", base.path().c_str(), 1), setenv("LD_PRELOAD", FAULT_SHIM, 1);
            setpgid(0, sentinels[0]), alarm(60);  // a run that hangs ends on SIGALRM
            _exit(execl(g_self, g_self, root.c_str(), nullptr));
        }
        int status = -1;
        return waitpid(pid, &status, 0), status;
    };
    const auto round = [&](const std::string& fault) {  // the outcome, "BROKEN" if none
        EXPECT_EQ(system(("rm -rf $Q && cp -a " + base / "old $Q").c_str()), 0);
        const int status = run(fault, "count");
        EXPECT_TRUE(status == 0 || (status == SIGKILL && fault.back() == '2')) << fault << status;
        EXPECT_EQ(run("0 0 0", "clean-count"), 0) << fault << ": the clean run after it";
        for (const pid_t sentinel : sentinels)
            EXPECT_EQ(waitpid(sentinel, nullptr, WNOHANG), 0) << fault << ": a sentinel ended";
        EXPECT_EQ(Snapshot(quarn + "/data"), data) << fault << ": the data folder changed";
        const TreeSnapshot now = Snapshot(app);
        bool aside = false;
        for (const char* n : {"", "1", "2", "3", "4", "5", "6", "7", "8", "9"})
            aside |= Snapshot(app + "_tmp" + n) == old;
        const std::string kept =
            now == package ? (Exists(app + "_tmp") ? "new, backup kept" : "new")
            : now == old   ? "old"
            : aside        ? "kept: old copy under its backup name"
            : std::includes(package.begin(), package.end(), now.begin(), now.end())
                ? "kept: a folder not opened, not copied"
            : std::includes(both.begin(), both.end(), now.begin(), now.end())
                ? "copied over an old copy it could not stat"
                : "BROKEN";
        EXPECT_NE(kept, "BROKEN") << fault << ": the copy is neither the old one nor the package";
        return kept;
    };
    const bool all = getenv("UPGRADE_FAULTS_LONG");
    ASSERT_EQ(round("0 0 0"), "new");
    const long points = std::stol("0" + ReadFile(base / "count"));
    ASSERT_GT(points, 50) << "the shim sees the upgrade's calls";
    std::map<std::string, std::map<std::string, int>> table;
    for (long k = 1, e = 0; k <= points; e = (e + 1) % 6, k += !e || !all) {
        const int err = e < 2 ? EIO : e < 4 ? EACCES : ENOSPC;
        table[strerror(err) + std::string(e % 2 ? ", lasting" : ", once")]
             [round(std::to_string(k) + " " + std::to_string(err) + " " + std::to_string(e % 2))]++;
    }
    std::mt19937 random(16);
    for (int i = 0; i < (all ? 200 : 10); ++i)
        table["SIGKILL"][round(std::to_string(random() % points + 1) + " 0 2")]++;
    printf("%ld fault points\n", points);
    for (const auto& [row, cells] : table)
        for (const auto& [outcome, n] : cells)
            printf("%-24s %-48s %5d\n", row.c_str(), outcome.c_str(), n);
}

int main(int argc, char** argv) {
    if (argc == 2 && argv[1][0] == '/') {  // a run: the worker's upgrade, without the client start
        FillQuarnPathTable(&Service::GetUserInstallPath, QString(argv[1]) + "/bin");
        LinuxService service;
        service.PreUpgrade();
        if (service.IsNeedUpgrade())
            service.HandlePackageUpgrade();
        service.RemoveAgedFolders();
        return 0;
    }
    g_self = argv[0];
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
