// A round runs the upgrade of an old copy (build 120, data, pid file) in a process whose k-th
// file-system call fails or is killed (fault-shim.c), then once cleanly: no hang, no crash, the
// data untouched, the copy the package, the old one or a kept outcome. UPGRADE_FAULTS_LONG=1:
// every errno once and lasting at every point, and 200 kills; else one a point, and 10 kills.

#include <fcntl.h>

#include <map>
#include <random>

#include "lib/desktop/ui-path-manager.h"
#include "service/linux/linux-service.h"
#include "tests/support/test-support.h"

using Tree = std::map<std::string, std::string>;  // path -> type, mode, digest of bytes or target
using namespace testsupport;
static const char* g_self;

static Tree Snapshot(const std::string& root) {
    namespace fs = std::filesystem;
    Tree tree;
    std::error_code ec, no;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string p = it->path();
        const fs::file_status st = it->symlink_status();
        const std::string bytes =
            is_regular_file(st) ? ReadFile(p) : fs::read_symlink(p, no).string();
        tree[p.substr(root.size())] = std::to_string(int(st.type()) << 12 | int(st.permissions())) +
                                      ":" + std::to_string(std::hash<std::string>{}(bytes));
    }
    return tree;
}

TEST(UpgradeFaults, UpgradeUnderEveryFaultKeepsTheUserCopyWhole) {
    testsupport::TempDir base;
    const std::string root = base / "opt", quarn = base / "home/.CorvaneQuarn",
                      app = quarn + "/CorvaneQuarn.app", package = root + "/package/nimbrel";
    setenv("HOME", (base / "home").c_str(), 1);
    unsetenv("XDG_CURRENT_DESKTOP");
    setenv("R", root.c_str(), 1);
    setenv("Q", quarn.c_str(), 1);
    setenv("A", app.c_str(), 1);
    setenv("P", package.c_str(), 1);
    ASSERT_EQ(system("m=" LAUNCHER_SOURCE_DIR "/scripts/make-sample-install; $m $R 120 && "
                     "mkdir -p $Q/data && cp -a $P $A && echo x >$A/only-in-old && $m $R 121 && "
                     "echo rows >$Q/data/db && head -c 40000 /dev/urandom >$P/bin/a.so"),
              0);
    // It names this driver but dates from before this boot, as a pid file left by the client of
    // an earlier session: a stop that signalled the driver would end the test.
    const timespec before_boot[2] = {{86400, 0}, {86400, 0}};
    ASSERT_TRUE(WriteFile(quarn + "/ui.pid", "pid=" + std::to_string(getpid())));
    ASSERT_EQ(utimensat(AT_FDCWD, (quarn + "/ui.pid").c_str(), before_boot, 0), 0);
    ASSERT_EQ(system(("cp -a $Q " + base / "old").c_str()), 0);
    Tree old = Snapshot(app), new_copy = Snapshot(package), data = Snapshot(quarn + "/data"),
         both = new_copy;
    both.insert(old.begin(), old.end());
    const auto run = [&](const std::string& fault, const char* count) {  // its wait status
        const pid_t pid = fork();
        if (pid == 0) {
            const char* asan = getenv("ASAN_OPTIONS");  // the shim comes before the sanitizer
            setenv("ASAN_OPTIONS",
                   (std::string(asan ? asan : "") + ":verify_asan_link_order=0").c_str(), 1);
            setenv("FAULT", fault.c_str(), 1);
            setenv("FAULT_COUNT", (base / count).c_str(), 1);
            setenv("FAULT_ROOT", base.path().c_str(), 1);
            setenv("LD_PRELOAD", FAULT_SHIM, 1);
            alarm(30);  // a run that hangs ends on SIGALRM
            _exit(execl(g_self, g_self, root.c_str(), nullptr));
        }
        int status = -1;
        waitpid(pid, &status, 0);
        return status;
    };
    // The outcome, "BROKEN" if none; spoil, run after the old copy is back, spoils the package.
    const auto round = [&](const std::string& fault, const std::string& spoil = "true") {
        EXPECT_EQ(system(("rm -rf $Q $P/bad && cp -a " + base / "old $Q && " + spoil).c_str()), 0);
        const int status = run(fault, "count");
        EXPECT_TRUE(status == 0 || (status == SIGKILL && fault.back() == '2')) << fault << status;
        EXPECT_EQ(run("0 0 0", "clean-count"), 0) << fault << ": the clean run after it";
        EXPECT_EQ(Snapshot(quarn + "/data"), data) << fault << ": the data folder changed";
        const Tree now = Snapshot(app);
        bool aside = false, backup = false;
        for (const char* n : {"", "1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
            aside |= Snapshot(app + "_tmp" + n) == old;
            backup |= access((app + "_tmp" + n).c_str(), F_OK) == 0;
        }
        const std::string kept = now == new_copy ? (backup ? "new, backup kept" : "new")
                                 : now == old    ? "old"
                                 : aside         ? "kept: old copy under its backup name"
                                 : std::includes(both.begin(), both.end(), now.begin(), now.end())
                                     ? "kept: files of both, some not copied"
                                     : "BROKEN";
        EXPECT_NE(kept, "BROKEN") << fault << ": the copy is neither the old one nor the package";
        return kept;
    };
    const bool all = getenv("UPGRADE_FAULTS_LONG");
    ASSERT_EQ(round("0 0 0"), "new");
    const long points = std::stol("0" + ReadFile(base / "count"));
    ASSERT_GT(points, 50) << "the shim sees the upgrade's calls";
    // A stale backup, all ten backup names taken, a FIFO or a device in the package: no loss.
    const std::string ten = "for n in '' 1 2 3 4 5 6 7 8 9; do mkdir -p $A\"_tmp$n/x\"; done";
    for (const auto& [spoil, outcome] : {std::pair("rm -r $A && mkdir -p ${A}_tmp/x", "new"),
                                         {"mkdir -p ${A}_tmp/x", "new"},
                                         {ten.c_str(), "old"},
                                         {"mkfifo $P/bad", "old"},
                                         {"mknod $P/bad c 1 3", "old"}})
        EXPECT_EQ(round("0 0 0", spoil), outcome) << spoil;
    std::map<std::string, std::map<std::string, int>> table;
    // Three errnos, each once and lasting: all six at every point, or one a point in turn.
    for (long k = 1; k <= points; ++k) {
        for (long e = all ? 0 : (k - 1) % 6; e <= (all ? 5 : (k - 1) % 6); ++e) {
            const int err = e < 2 ? EIO : e < 4 ? EACCES : ENOSPC;
            const std::string fault = std::to_string(k) + " " + std::to_string(err) + " ";
            table[strerror(err) + std::string(e % 2 ? ", lasting" : ", once")]
                 [round(fault + std::to_string(e % 2))]++;
        }
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
