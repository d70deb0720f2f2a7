// The upgrade under injected faults and hard kills. Each round puts an old copy (build 120,
// with a data folder and a pid file naming 2^32 + a sentinel's pid) in the home, runs the
// worker's upgrade (no client start) in a fresh process with the fault, then once more
// cleanly, and asserts: no hang, no crash, both sentinels (one in the run's process group,
// one in its own) alive, the data folder untouched, and the user copy the old one or the
// package, or one of the two kept outcomes. UPGRADE_FAULTS_LONG=1: every fault point with
// every errno, once and lasting, and 200 kills, with the table of outcomes.

#include <random>

#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;
const bool kLong = getenv("UPGRADE_FAULTS_LONG") != nullptr;
std::string g_self;

class UpgradeFaults : public ServiceTest {
protected:
    // Runs the upgrade with FAULT (see fault-shim.c), SIGKILL after kill_s when >= 0: the wait
    // status, or -1 when it hung for a minute.
    int Run(const std::string& fault, double kill_s = -1, const char* count = "count") {
        const pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, group);
            setenv("FAULT", fault.c_str(), 1);
            setenv("FAULT_ROOTS", (home + ":" + Package()).c_str(), 1);
            setenv("FAULT_COUNT", (base / count).c_str(), 1);
            setenv("LD_PRELOAD", FAULT_SHIM, 1);
            const char* asan = getenv("ASAN_OPTIONS");  // the shim comes before the sanitizer
            setenv("ASAN_OPTIONS",
                   (asan ? asan + std::string(":") : "").append("verify_asan_link_order=0").c_str(),
                   1);
            execl(g_self.c_str(), g_self.c_str(), "--upgrade", root.c_str(), nullptr);
            _exit(127);
        }
        int status = -1;
        for (const Clock::time_point start = Clock::now(); waitpid(pid, &status, WNOHANG) == 0;
             usleep(2000)) {
            if (SecondsSince(start) > (kill_s >= 0 ? kill_s : 60)) {
                kill(pid, SIGKILL), waitpid(pid, &status, 0);
                return kill_s >= 0 ? 0 : -1;
            }
        }
        return status;
    }
    // One round: the old copy, a faulty run, a clean run; the outcome, "" if an invariant broke.
    std::string Round(const std::string& fault, double kill_s = -1) {
        EXPECT_EQ(
            system(
                ("rm -rf '" + quarn + "' && cp -a '" + base / "old'" + " '" + quarn + "'").c_str()),
            0);
        const int status = Run(fault, kill_s), clean = Run("0 0 0", -1, "clean-count");
        EXPECT_EQ(status, 0) << fault << ": hung (-1) or crashed";
        EXPECT_EQ(clean, 0) << fault << ": the clean run after it hung (-1) or crashed";
        for (const pid_t sentinel : {group, stranger}) {
            EXPECT_EQ(waitpid(sentinel, nullptr, WNOHANG), 0) << fault << ": a sentinel ended";
        }
        EXPECT_EQ(Snapshot(quarn + "/data"), data) << fault << ": the data folder changed";
        const TreeSnapshot now = Snapshot(app);
        std::string kept = now == package ? "new" : now == old ? "old" : "";
        for (const char* n : {"", "1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
            kept += kept.empty() && Exists(app + "_tmp" + n)
                        ? Snapshot(app + "_tmp" + n) == old ? "kept: old under backup name" : ""
                        : "";
        }
        if (kept.empty() && std::includes(package.begin(), package.end(), now.begin(), now.end())) {
            kept = "kept: folder not opened";  // an unopened folder counts as copied
        }
        EXPECT_NE(kept, "") << fault << ": the user copy is neither the old one nor the package";
        return kept + (kept == "new" && Exists(app + "_tmp") ? ", backup kept" : "");
    }

    void SetUp() override {
        ServiceTest::SetUp();
        MakeOldCopy();
        ASSERT_TRUE(WriteFile(app + "/lib/libold.so", "old") &&
                    WriteFile(quarn + "/data/db", "rows"));
        ASSERT_TRUE(WriteFile(Package() + "/lib/libnew.so", std::string(40000, 'n')));
        for (pid_t* sentinel : {&group, &stranger}) {
            if ((*sentinel = fork()) == 0) {
                setpgid(0, 0);
                for (;;) {
                    pause();
                }
            }
            setpgid(*sentinel, *sentinel);
        }
        ASSERT_TRUE(WriteFile(quarn + "/ui.pid", "pid=" + std::to_string((1LL << 32) + stranger)));
        ASSERT_EQ(system(("cp -a '" + quarn + "' '" + base / "old'").c_str()), 0);
        old = Snapshot(app), package = Snapshot(Package()), data = Snapshot(quarn + "/data");
    }
    void TearDown() override {
        kill(group, SIGKILL), kill(stranger, SIGKILL);
        waitpid(group, nullptr, 0), waitpid(stranger, nullptr, 0);
        ServiceTest::TearDown();
    }
    pid_t group = 0, stranger = 0;
    TreeSnapshot old, package, data;
    std::map<std::string, std::map<std::string, int>> table;
};

TEST_F(UpgradeFaults, EveryFaultPointKeepsTheUserCopyWhole) {
    ASSERT_EQ(Round("0 0 0"), "new");
    const long points = std::stol(ReadFile(base / "count"));
    ASSERT_GT(points, 20) << "the shim sees the upgrade's calls";
    const int errnos[] = {EIO, EACCES, ENOSPC};
    for (long k = 1; k <= points; ++k) {
        for (int combo = 0; combo < 6; ++combo) {
            if (kLong || combo == k % 6) {
                const std::string fault = std::to_string(k) + " " +
                                          std::to_string(errnos[combo / 2]) + " " +
                                          std::to_string(combo % 2);
                table[strerror(errnos[combo / 2]) + std::string(combo % 2 ? ", lasting" : ", once")]
                     [Round(fault)]++;
            }
        }
    }
    std::mt19937 rng(16);
    const Clock::time_point start = Clock::now();
    Round("0 0 0");
    const double clean_s = SecondsSince(start) / 2;
    for (int i = 0; i < (kLong ? 200 : 10); ++i) {
        table["SIGKILL"][Round("0 0 0", std::uniform_real_distribution<>(0, clean_s)(rng))]++;
    }
    printf("%ld fault points\n", points);
    for (const auto& row : table) {
        for (const auto& cell : row.second) {
            printf("%-22s %-32s %5d\n", row.first.c_str(), cell.first.c_str(), cell.second);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--upgrade") {  // the worker's sequence, no client
        FillPathTable(std::string(argv[2]) + "/bin");
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
