// The shared service operations: install root, package installation with backup and
// rollback, the folder copy, predecessor migration and aged folders.

#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;

const char* const kCloud = "cloud-service.cpp";

class CloudServiceTest : public ServiceTest {
protected:
    // The system package at build 121 over an old user copy at build 120 with a file of its own.
    void MakeOldCopy() {
        ASSERT_TRUE(MakeSampleInstall("120") && MakeDirs(quarn));
        ASSERT_EQ(system(("cp -a '" + Package() + "' '" + app + "'").c_str()), 0);
        ASSERT_TRUE(WriteFile(app + "/only-in-old", "old bytes") && MakeSampleInstall("121"));
    }
    std::string Backup(const std::string& suffix) const { return app + "_tmp" + suffix; }
};

TEST_F(CloudServiceTest, InstallRootIsHomeUnlessExactlyDeepinWithDataHome) {
    const QString h = QString::fromStdString(home);
    const struct {
        const char* desktop;  // nullptr: unset
        const char* data;     // nullptr: unset
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
    EXPECT_TRUE(Logged("DEBUG", kCloud, 25, "Current Desktop is ubuntu:GNOME\n"));
    EXPECT_TRUE(Logged("DEBUG", kCloud, 41, "user install path is \n"));
    EXPECT_TRUE(Logged("DEBUG", kCloud, 41, "user install path is /srv/dh\n"));
    EXPECT_EQ(CountInLog("user install path is"), 3u) << "only the Deepin desktop looks at it";

    FillPathTable(root + "/bin");  // every per-user path follows the root
    EXPECT_EQ(LinuxService().app_path, "/srv/dh/.CorvaneQuarn/CorvaneQuarn.app");
    EXPECT_EQ(UIPathManager::getInstance()->getPath("user_nimbrel_path"), "/srv/dh/.Nimbrel");
}

// No old copy (a stale "_tmp" is cleared); an old copy goes to "_tmp", or to "_tmp1" when "_tmp"
// is taken. Every name tried is removed after success.
TEST_F(CloudServiceTest, InstallBacksUpTheOldCopyAndRemovesEveryBackupAfterSuccess) {
    for (const int stale_backups : {1, 0, 1}) {
        const bool old_copy = Exists(quarn);  // from the second round on
        testsupport::RemoveTree(quarn);
        if (old_copy) {
            MakeOldCopy();
        } else {
            ASSERT_TRUE(MakeSampleInstall("121"));
        }
        ASSERT_TRUE(!stale_backups || WriteFile(Backup("") + "/stale", "interrupted run"));
        const size_t failed = CountInLog("failed to backup app");
        ASSERT_EQ(LinuxService().PrepareUserEnv(), 0);
        EXPECT_EQ(Snapshot(app), Snapshot(Package()));
        EXPECT_FALSE(Exists(Backup("")) || Exists(Backup("1")));
        EXPECT_EQ(CountInLog("failed to backup app"), failed + (old_copy ? stale_backups : 0));
    }
    EXPECT_TRUE(
        Logged("INFO", kCloud, 134, "copy package:'" + Package() + "' -> '" + app + "' \n"));
    EXPECT_TRUE(Logged("DEBUG", kCloud, 71, "copy from '" + Package() + "' to '" + app + "'\n"));
    EXPECT_TRUE(Logged("INFO", kCloud, 262, "user installation is ready, removing backup app\n"));
    EXPECT_TRUE(Logged("ERROR", kCloud, 236,
                       "failed to backup app from '" + app + "' -> '" + Backup("") + "'\n"));
}

TEST_F(CloudServiceTest, AllTenBackupNamesBlockedLeavesTheOldCopyInPlace) {
    MakeOldCopy();
    for (const char* s : {"", "1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
        ASSERT_TRUE(WriteFile(Backup(s) + "/blocker", s));
    }
    const TreeSnapshot before = Snapshot(app);
    EXPECT_EQ(LinuxService().PrepareUserEnv(), -1);
    EXPECT_EQ(Snapshot(app), before);
    EXPECT_EQ(ReadFile(Backup("9") + "/blocker"), "9");
    EXPECT_EQ(CountInLog("[ERROR] cloud-service.cpp(236): failed to backup app from"), 10u);
    EXPECT_TRUE(Logged("ERROR", kCloud, 240,
                       "failed to backup app from '" + app + "' -> '" + Backup("9") +
                           "' at max retries, exiting\n"));
    EXPECT_EQ(Log().find("copy package"), std::string::npos);
}

// A dangling link or a file the user cannot read inside the package: the copy fails and the
// old copy comes back byte for byte.
TEST_F(CloudServiceTest, CopyFailureRollsBackToTheIdenticalOldCopy) {
    for (const bool dangling : {true, false}) {
        testsupport::RemoveTree(quarn);
        testsupport::RemoveTree(root);
        MakeOldCopy();
        const std::string bad = Package() + "/share/bad";
        ASSERT_TRUE(dangling ? symlink("/nonexistent", bad.c_str()) == 0
                             : WriteFile(bad, "root only") && chmod(bad.c_str(), 0600) == 0);
        ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
        ASSERT_EQ(system(("chown -R 65534:65534 '" + home + "'").c_str()), 0);
        const TreeSnapshot before = Snapshot(app);
        EXPECT_EQ(testsupport::RunAsUnprivileged([] { return -LinuxService().PrepareUserEnv(); }),
                  1);
        EXPECT_EQ(Snapshot(app), before) << dangling;
        EXPECT_FALSE(Exists(Backup("")));
        EXPECT_TRUE(
            Logged("ERROR", kCloud, 116,
                   "FSCopyPath: failed to copy from '" + bad + "' to '" + app + "/share/bad'\n"));
    }
    EXPECT_EQ(CountInLog("[ERROR] cloud-service.cpp(255): Failed to extract package, rollback to "
                         "old installation\n"),
              2u);
    EXPECT_EQ(Log().find("user installation is ready"), std::string::npos);
}

TEST_F(CloudServiceTest, LinkToAFolderInsideThePackageIsCopiedAsAFile) {
    ASSERT_TRUE(WriteFile(base / "src/real/inner", "inside"));
    ASSERT_EQ(symlink("real", (base / "src/link").c_str()), 0);
    // The file copy cannot read a folder: the walk stops with a failure, nothing is recursed.
    EXPECT_EQ(LinuxService().FSCopyPath(base / "src", base / "dst"), -1);
    EXPECT_FALSE(Exists(base / "dst/link/inner"));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(base / "dst/link")));
    EXPECT_NE(Log().find("CopyFile: read: Is a directory"), std::string::npos);
}

TEST_F(CloudServiceTest, MigrationMovesDataAndAlwaysRemovesTheOldFolder) {
    LinuxService service;
    service.MigrateService();  // nothing to migrate: only the new folder is made
    EXPECT_TRUE(fs::is_directory(quarn) && fs::is_empty(quarn));
    EXPECT_FALSE(Exists(nimbrel));

    ASSERT_TRUE(WriteFile(nimbrel + "/data/db/sync.db", "rows"));
    service.MigrateService();
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "rows");
    EXPECT_FALSE(Exists(nimbrel));

    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin", "x"));  // no data: the old folder still goes
    service.MigrateService();
    EXPECT_FALSE(Exists(nimbrel));
    EXPECT_EQ(Log().find("[ERROR]"), std::string::npos);

    // Data already in the new folder: the move fails, and the old folder goes all the same.
    ASSERT_TRUE(WriteFile(nimbrel + "/data/old.db", "old rows"));
    service.MigrateService();
    EXPECT_TRUE(Logged("ERROR", kCloud, 287, "Failed to move data to Corvane Quarn folder\n"));
    EXPECT_FALSE(Exists(nimbrel));
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "rows");
}

TEST_F(CloudServiceTest, AgedAppFolderIsRemovedAndTheLineWrittenEveryRun) {
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin/old-ui", "x") && WriteFile(nimbrel + "/data/k", "x"));
    LinuxService service;
    service.RemoveAgedFolders();
    service.RemoveAgedFolders();
    EXPECT_FALSE(Exists(nimbrel + "/app"));
    EXPECT_TRUE(Exists(nimbrel + "/data/k"));
    EXPECT_EQ(
        CountInLog("[INFO] cloud-service.cpp(301): removing aged app folder " + nimbrel + "/app\n"),
        2u);
}

}  // namespace
