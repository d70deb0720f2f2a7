// The shared service operations: install root, package installation with backup and
// rollback, the folder copy, predecessor migration and aged folders.

#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;

const char* const kCloud = "cloud-service.cpp";

using CloudServiceTest = ServiceTest;

TEST_F(CloudServiceTest, InstallRootIsHomeUnlessExactlyDeepinWithDataHome) {
    const QString h = QString::fromStdString(home);
    const struct {
        const char *desktop, *data;  // nullptr: unset
        QString root;
    } cases[] = {
        {nullptr, "/srv/dh", h},          {"deepin", "/srv/dh", h}, {"Deepin:GNOME", "/srv/dh", h},
        {"GNOME", "/srv/dh", h},          {"Deepin", "", h},        {"Deepin", nullptr, h},
        {"Deepin", "/srv/dh", "/srv/dh"},
    };
    for (const auto& c : cases) {
        c.desktop ? setenv("XDG_CURRENT_DESKTOP", c.desktop, 1) : unsetenv("XDG_CURRENT_DESKTOP");
        c.data ? setenv("XDG_DATA_HOME", c.data, 1) : unsetenv("XDG_DATA_HOME");
        EXPECT_EQ(Service::GetUserInstallPath(), c.root) << c.desktop << " " << c.data;
    }
    EXPECT_EQ(Logged("Current Desktop is ubuntu:GNOME\n", "DEBUG", kCloud, 25), 1u);
    EXPECT_EQ(Logged("user install path is \n", "DEBUG", kCloud, 41), 2u);
    EXPECT_EQ(Logged("user install path is /srv/dh\n", "DEBUG", kCloud, 41), 1u);
    FillPathTable(root + "/bin");  // every per-user path follows the root
    EXPECT_EQ(LinuxService().app_path, "/srv/dh/.CorvaneQuarn/CorvaneQuarn.app");
    EXPECT_EQ(UIPathManager::getInstance()->getPath("user_nimbrel_path"), "/srv/dh/.Nimbrel");
}

// No old copy (a stale "_tmp" is cleared); an old copy goes to "_tmp", or to "_tmp1" when "_tmp"
// is taken; ten names taken leave it in place. Every name tried is removed after success.
TEST_F(CloudServiceTest, InstallBacksUpTheOldCopyAndRemovesEveryBackupAfterSuccess) {
    for (const int taken : {1, 0, 1, 10}) {
        const bool old_copy = Exists(quarn);  // from the second round on
        testsupport::RemoveTree(quarn);
        ASSERT_TRUE(old_copy ? (MakeOldCopy(), true) : MakeSampleInstall("121"));
        for (int n = 0; n < taken; ++n) {
            ASSERT_TRUE(WriteFile(app + "_tmp" + (n ? std::to_string(n) : "") + "/x", "taken"));
        }
        const size_t failed = Logged("failed to backup app from '" + app + "'");
        const TreeSnapshot before = Snapshot(app);
        EXPECT_EQ(LinuxService().PrepareUserEnv(), taken == 10 ? -1 : 0);
        EXPECT_EQ(Snapshot(app), taken == 10 ? before : Snapshot(Package()));
        EXPECT_EQ(Exists(app + "_tmp") || Exists(app + "_tmp1"), taken == 10);
        EXPECT_EQ(Logged("failed to backup app from '" + app + "'"),
                  failed + (old_copy ? taken : 0) + (taken == 10));
    }
    EXPECT_EQ(Logged("copy package:'" + Package() + "' -> '" + app + "' \n", "INFO", kCloud, 134),
              3u);
    EXPECT_EQ(Logged("copy from '" + Package() + "' to '" + app + "'\n", "DEBUG", kCloud, 71), 3u);
    EXPECT_EQ(Logged("user installation is ready, removing backup app\n", "INFO", kCloud, 262), 3u);
    EXPECT_EQ(Logged("failed to backup app from '" + app + "' -> '" + app + "_tmp'\n", "ERROR",
                     kCloud, 236),
              2u);
    EXPECT_EQ(Logged("failed to backup app from '" + app + "' -> '" + app +
                         "_tmp9' at max retries, exiting\n",
                     "ERROR", kCloud, 240),
              1u);
}

// A dangling link, a file the user cannot read, a FIFO, a socket or a device in the package:
// the copy fails at once and the old copy comes back byte for byte.
TEST_F(CloudServiceTest, CopyFailureRollsBackToTheIdenticalOldCopy) {
    for (const char* bad_kind : {"link", "unreadable", "fifo", "socket", "device"}) {
        testsupport::RemoveTree(quarn);
        testsupport::RemoveTree(root);
        MakeOldCopy();
        const std::string bad = Package() + "/share/bad", kind = bad_kind;
        sockaddr_un addr{AF_UNIX, {}};
        bad.copy(addr.sun_path, sizeof addr.sun_path - 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_TRUE(kind == "link"         ? symlink("/nonexistent", bad.c_str()) == 0
                    : kind == "unreadable" ? WriteFile(bad, "x") && chmod(bad.c_str(), 0600) == 0
                    : kind == "fifo"       ? mkfifo(bad.c_str(), 0644) == 0
                    : kind == "socket"     ? bind(sock, (sockaddr*)&addr, sizeof addr) == 0
                                       : mknod(bad.c_str(), S_IFCHR | 0644, makedev(1, 3)) == 0);
        ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
        ASSERT_EQ(system(("chown -R 65534:65534 '" + home + "'").c_str()), 0);
        const TreeSnapshot before = Snapshot(app);
        EXPECT_EQ(testsupport::RunAsUnprivileged([] {
                      alarm(20);  // a copy that blocks ends here
                      return -LinuxService().PrepareUserEnv();
                  }),
                  1)
            << kind;
        close(sock);
        EXPECT_EQ(Snapshot(app), before) << kind;
        EXPECT_FALSE(Exists(app + "_tmp"));
    }
    EXPECT_EQ(Logged("FSCopyPath: failed to copy from '" + Package() + "/share/bad' to '" + app +
                         "/share/bad'\n",
                     "ERROR", kCloud, 116),
              5u);
    EXPECT_EQ(
        Logged("Failed to extract package, rollback to old installation\n", "ERROR", kCloud, 255),
        5u);
    EXPECT_EQ(Logged("user installation is ready"), 0u);
}

TEST_F(CloudServiceTest, LinkToAFolderInsideThePackageIsCopiedAsAFile) {
    ASSERT_TRUE(WriteFile(base / "src/real/inner", "inside"));
    ASSERT_EQ(symlink("real", (base / "src/link").c_str()), 0);
    // The file copy cannot read a folder: the walk stops with a failure, nothing is recursed.
    EXPECT_EQ(LinuxService().FSCopyPath(base / "src", base / "dst"), -1);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(base / "dst/link")));
    EXPECT_EQ(Logged("CopyFile: read: Is a directory"), 1u);
}

TEST_F(CloudServiceTest, MigrationMovesDataAndAlwaysRemovesTheOldFolderAgedAppEveryRun) {
    LinuxService service;
    service.MigrateService();  // nothing to migrate: only the new folder is made
    EXPECT_TRUE(fs::is_directory(quarn) && fs::is_empty(quarn));
    ASSERT_TRUE(WriteFile(nimbrel + "/data/db/sync.db", "rows"));
    service.MigrateService();
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "rows");
    EXPECT_FALSE(Exists(nimbrel));
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin", "x"));  // no data: the old folder still goes
    service.MigrateService();
    EXPECT_FALSE(Exists(nimbrel));
    EXPECT_EQ(Logged("[ERROR]"), 0u);
    // Data already in the new folder: the move fails, and the old folder goes all the same.
    ASSERT_TRUE(WriteFile(nimbrel + "/data/old.db", "old rows"));
    service.MigrateService();
    EXPECT_EQ(Logged("Failed to move data to Corvane Quarn folder\n", "ERROR", kCloud, 287), 1u);
    EXPECT_FALSE(Exists(nimbrel));
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "rows");

    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin/old-ui", "x") && WriteFile(nimbrel + "/data/k", "x"));
    service.RemoveAgedFolders();
    service.RemoveAgedFolders();
    EXPECT_FALSE(Exists(nimbrel + "/app"));
    EXPECT_TRUE(Exists(nimbrel + "/data/k"));
    EXPECT_EQ(Logged("removing aged app folder " + nimbrel + "/app\n", "INFO", kCloud, 301), 2u);
}

}  // namespace
