// The shared service operations: install root, installation with backup and rollback,
// predecessor migration and aged folders.

#include <sys/socket.h>
#include <sys/un.h>

#include "tests/unit/service-test-env.h"

using namespace servicetest;
using CloudServiceTest = ServiceTest;

// The Deepin desktop, exactly so named, with a data folder set: that folder; else the home.
TEST_F(CloudServiceTest, InstallRootIsHomeUnlessExactlyDeepinWithDataHome) {
    for (const auto& [desktop, data] : {std::pair("deepin", "/d"),
                                        {"Deepin:GNOME", "/d"},
                                        {"Deepin", ""},
                                        {"GNOME", "/d"},
                                        {"Deepin", "/d"}}) {
        setenv("XDG_CURRENT_DESKTOP", desktop, 1), setenv("XDG_DATA_HOME", data, 1);
        EXPECT_EQ(Service::GetUserInstallPath().toStdString(),
                  !strcmp(desktop, "Deepin") && *data ? data : home);
    }
    unsetenv("XDG_CURRENT_DESKTOP"), unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(Service::GetUserInstallPath().toStdString(), home);
}

// No old copy (a stale "_tmp" is cleared); an old copy goes to "_tmp", or to "_tmp1" when "_tmp"
// is taken; all ten names taken leave it in place. Every name tried is removed after success.
TEST_F(CloudServiceTest, InstallBacksUpTheOldCopyAndRemovesEveryBackupAfterSuccess) {
    for (const auto& [old, taken] : {std::pair(false, 1), {true, 0}, {true, 1}, {true, 10}}) {
        Install(old);
        for (int n = 0; n < taken; ++n) {
            ASSERT_TRUE(WriteFile(app + "_tmp" + (n ? std::to_string(n) : "") + "/x", "taken"));
        }
        const size_t failed = Logged("failed to backup app from '" + app + "' -> '");
        const TreeSnapshot before = Snapshot(app);
        EXPECT_EQ(LinuxService().PrepareUserEnv(), taken == 10 ? -1 : 0);
        EXPECT_EQ(Snapshot(app), taken == 10 ? before : Snapshot(Package()));
        EXPECT_EQ(Exists(app + "_tmp") || Exists(app + "_tmp1"), taken == 10);
        EXPECT_EQ(Logged("failed to backup app from '" + app + "' -> '"),
                  failed + old * (taken + (taken == 10)));
    }
    EXPECT_EQ(Logged("_tmp9' at max retries, exiting\n"), 1u);
}

// A dangling link, a file the user cannot read, a FIFO, a device or a socket in the package:
// the copy fails at once and the old copy comes back byte for byte.
TEST_F(CloudServiceTest, CopyFailureRollsBackToTheIdenticalOldCopy) {
    for (const std::string make : {"ln -s /none $B", "echo x >$B && chmod 600 $B", "mkfifo $B",
                                   "mknod $B c 1 3", "socket"}) {
        Install(true);
        sockaddr_un bad{AF_UNIX, {}};
        setenv("B", strncpy(bad.sun_path, (Package() + "/share/bad").c_str(), 100), 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(make == "socket" ? bind(sock, (sockaddr*)&bad, sizeof bad) : system(make.c_str()),
                  0);
        ASSERT_EQ(system(("chmod 755 " + base.path() + " && chown -R 65534 $Q").c_str()), 0);
        const TreeSnapshot before = Snapshot(app);
        EXPECT_EQ(testsupport::RunAsUnprivileged(
                      [] { return alarm(20), -LinuxService().PrepareUserEnv(); }),
                  1)
            << make << ": failed at once (not on the alarm)";
        EXPECT_EQ(Snapshot(app), before) << make;
        EXPECT_FALSE(Exists(app + "_tmp"));
        close(sock);
    }
    EXPECT_EQ(Logged("(116): FSCopyPath: failed to copy from '" + Package() + "/share/bad'"), 5u);
    EXPECT_EQ(Logged("(255): Failed to extract package, rollback to old installation\n"), 5u);
}

TEST_F(CloudServiceTest, MigrationMovesDataAndAlwaysRemovesTheOldFolderAgedAppEveryRun) {
    const std::string nimbrel = home + "/.Nimbrel";
    LinuxService service;
    service.MigrateService();  // nothing to migrate: only the new folder is made
    EXPECT_TRUE(fs::is_directory(quarn) && fs::is_empty(quarn));
    for (const char* file : {"/data/db/sync.db", "/app/bin", "/data/old.db"}) {
        ASSERT_TRUE(WriteFile(nimbrel + file, file));  // the last one meets data already moved
        service.MigrateService();
        EXPECT_FALSE(Exists(nimbrel)) << file << ": the old folder goes also after a failed move";
    }
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "/data/db/sync.db");
    EXPECT_EQ(Logged("[ERROR]"), 1u);
    EXPECT_EQ(Logged("(287): Failed to move data to Corvane Quarn folder\n"), 1u);
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin/old-ui", "x") && WriteFile(nimbrel + "/data/k", "x"));
    service.RemoveAgedFolders();
    service.RemoveAgedFolders();
    EXPECT_FALSE(Exists(nimbrel + "/app"));
    EXPECT_TRUE(Exists(nimbrel + "/data/k"));
    EXPECT_EQ(Logged("(301): removing aged app folder " + nimbrel + "/app\n"), 2u);
}
