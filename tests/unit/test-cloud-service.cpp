// The shared service operations: versions, install root, package installation with backup and
// rollback, the folder copy, extraction, predecessor migration and aged folders.

#include <fcntl.h>

#include "launcher/str-table.h"
#include "service/linux/linux-service.h"
#include "tests/unit/service-test-env.h"

namespace {

using namespace servicetest;
using testsupport::MakeDirs;
using testsupport::ReadFile;
using testsupport::WriteFile;

const char* const kCloud = "cloud-service.cpp";

class CloudServiceTest : public ServiceTest {
protected:
    // The system package at build 121; an old user copy at build 120 with a file of its own.
    void MakeOldCopy() {
        ASSERT_TRUE(MakeSampleInstall(root, "120"));
        ASSERT_TRUE(MakeDirs(quarn));
        ASSERT_EQ(system(("cp -a '" + Package() + "' '" + app + "'").c_str()), 0);
        ASSERT_TRUE(WriteFile(app + "/only-in-old", "old bytes"));
        ASSERT_TRUE(MakeSampleInstall(root, "121"));
    }
    std::string Backup(const std::string& suffix) const { return app + "_tmp" + suffix; }
    bool Exists(const std::string& path) const {
        std::error_code ec;
        return fs::exists(fs::symlink_status(path, ec));
    }
};

// ---- versions ----

TEST_F(CloudServiceTest, LoadsBothVersionsAndLogsThem) {
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    ASSERT_TRUE(WriteFile(app + "/INFO",
                          "[Version]\nmajor_version=2\nminor_version=9\nbuild_version=118b\n"
                          "icon_overlay_version=4\n"));
    LinuxService service;
    service.LoadTargetVersion();
    service.LoadSourceVersion();
    EXPECT_EQ(service.target_version.major_version, "3");
    EXPECT_EQ(service.target_version.minor_version, "2");
    EXPECT_EQ(service.target_version.build_version, "121");
    EXPECT_EQ(service.target_version.icon_overlay_version, "7");
    EXPECT_EQ(service.source_version.build_version, "118b");
    EXPECT_TRUE(Logged("INFO", kCloud, 207, "target_version = (3, 2, 121, 7)\n"));
    EXPECT_TRUE(Logged("INFO", kCloud, 188, "source_version = (2, 9, 118b, 4)\n"));
}

TEST_F(CloudServiceTest, MissingInfoFilesLeaveVersionsEmpty) {
    LinuxService service;
    service.LoadSourceVersion();
    service.LoadTargetVersion();
    EXPECT_EQ(service.source_version.build_version, "");
    EXPECT_EQ(service.target_version.build_version, "");
    EXPECT_TRUE(Logged("INFO", kCloud, 172, "source does not exist\n"));
    EXPECT_EQ(Log().find("source_version"), std::string::npos);
    EXPECT_TRUE(Logged("INFO", kCloud, 207, "target_version = (, , , )\n"));
}

TEST_F(CloudServiceTest, MissingKeyKeepsTheFieldAsItWas) {
    ASSERT_TRUE(WriteFile(app + "/INFO", "[Version]\nmajor_version=5\n[Other]\nbuild_version=9\n"));
    LinuxService service;
    service.source_version.build_version = "77";
    service.LoadSourceVersion();
    EXPECT_EQ(service.source_version.major_version, "5");
    EXPECT_EQ(service.source_version.build_version, "77");
}

// ---- user install root ----

TEST_F(CloudServiceTest, InstallRootIsHomeUnlessExactlyDeepinWithDataHome) {
    const QString h = QString::fromStdString(home);
    EXPECT_EQ(Service::GetUserInstallPath(), h);
    EXPECT_TRUE(Logged("DEBUG", kCloud, 25, "Current Desktop is ubuntu:GNOME\n"));

    setenv("XDG_DATA_HOME", "/srv/data-home", 1);
    EXPECT_EQ(Service::GetUserInstallPath(), h) << "only the Deepin desktop looks at it";
    for (const char* desktop : {"deepin", "Deepin:GNOME", "GNOME"}) {
        setenv("XDG_CURRENT_DESKTOP", desktop, 1);
        EXPECT_EQ(Service::GetUserInstallPath(), h) << desktop;
    }
    setenv("XDG_CURRENT_DESKTOP", "Deepin", 1);
    EXPECT_EQ(Service::GetUserInstallPath(), QString("/srv/data-home"));
    EXPECT_TRUE(Logged("DEBUG", kCloud, 41, "user install path is /srv/data-home\n"));

    setenv("XDG_DATA_HOME", "", 1);
    EXPECT_EQ(Service::GetUserInstallPath(), h);
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(Service::GetUserInstallPath(), h);
    EXPECT_TRUE(Logged("DEBUG", kCloud, 41, "user install path is \n"));
    EXPECT_TRUE(Logged("DEBUG", kCloud, 25, "Current Desktop is Deepin\n"));
}

TEST_F(CloudServiceTest, DeepinDataHomeCarriesEveryPerUserPath) {
    setenv("XDG_CURRENT_DESKTOP", "Deepin", 1);
    setenv("XDG_DATA_HOME", (base / "xdg/").c_str(), 1);
    FillPathTable(root + "/bin");
    EXPECT_EQ(PathOf("user_corvane_quarn_path"), base / "xdg/.CorvaneQuarn");
    EXPECT_EQ(PathOf("user_corvane_quarn_ui_path"),
              base / "xdg/.CorvaneQuarn/CorvaneQuarn.app/bin/cloud-quarn-ui");
    EXPECT_EQ(PathOf("user_nimbrel_path"), base / "xdg/.Nimbrel");
    EXPECT_EQ(PathOf("root_resource_path"), root);
    LinuxService service;
    EXPECT_EQ(service.app_path, base / "xdg/.CorvaneQuarn/CorvaneQuarn.app");
}

// ---- installation ----

TEST_F(CloudServiceTest, FreshInstallCopiesThePackageAndClearsAStaleBackup) {
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    ASSERT_TRUE(WriteFile(Backup("") + "/left-over", "x"));
    LinuxService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    EXPECT_EQ(Snapshot(app), Snapshot(Package()));
    EXPECT_FALSE(Exists(Backup("")));
    EXPECT_NE(fs::status(app + "/bin/cloud-quarn-ui").permissions() & fs::perms::owner_exec,
              fs::perms::none);
    EXPECT_TRUE(
        Logged("INFO", kCloud, 134, "copy package:'" + Package() + "' -> '" + app + "' \n"));
    EXPECT_TRUE(Logged("DEBUG", kCloud, 71, "copy from '" + Package() + "' to '" + app + "'\n"));
    EXPECT_TRUE(Logged("INFO", kCloud, 262, "user installation is ready, removing backup app\n"));
}

TEST_F(CloudServiceTest, OldCopyGoesToBackupAndTheBackupIsRemovedAfterSuccess) {
    MakeOldCopy();
    LinuxService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    EXPECT_EQ(Snapshot(app), Snapshot(Package()));
    EXPECT_FALSE(Exists(app + "/only-in-old"));
    EXPECT_FALSE(Exists(Backup("")));
    EXPECT_EQ(Log().find("failed to backup"), std::string::npos);
}

TEST_F(CloudServiceTest, BlockedFirstBackupNameMovesOnAndBothNamesAreRemoved) {
    MakeOldCopy();
    ASSERT_TRUE(WriteFile(Backup("") + "/stale", "from an interrupted run"));
    LinuxService service;
    ASSERT_EQ(service.PrepareUserEnv(), 0);
    EXPECT_EQ(Snapshot(app), Snapshot(Package()));
    EXPECT_FALSE(Exists(Backup("")));
    EXPECT_FALSE(Exists(Backup("1")));
    EXPECT_TRUE(Logged("ERROR", kCloud, 236,
                       "failed to backup app from '" + app + "' -> '" + Backup("") + "'\n"));
    EXPECT_EQ(CountInLog("failed to backup app"), 1u);
}

TEST_F(CloudServiceTest, AllTenBackupNamesBlockedLeavesTheOldCopyInPlace) {
    MakeOldCopy();
    for (const char* s : {"", "1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
        ASSERT_TRUE(WriteFile(Backup(s) + "/blocker", s));
    }
    const TreeSnapshot before = Snapshot(app);
    LinuxService service;
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(Snapshot(app), before);
    EXPECT_EQ(ReadFile(Backup("9") + "/blocker"), "9") << "blocked names are not touched";
    EXPECT_EQ(CountInLog("[ERROR] cloud-service.cpp(236): failed to backup app from"), 10u);
    EXPECT_TRUE(Logged("ERROR", kCloud, 240,
                       "failed to backup app from '" + app + "' -> '" + Backup("9") +
                           "' at max retries, exiting\n"));
    EXPECT_EQ(Log().find("copy package"), std::string::npos);
}

TEST_F(CloudServiceTest, CopyFailureRollsBackToTheIdenticalOldCopy) {
    MakeOldCopy();
    ASSERT_EQ(symlink("/nonexistent/target", (Package() + "/share/dangling").c_str()), 0);
    const TreeSnapshot before = Snapshot(app);
    LinuxService service;
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_EQ(Snapshot(app), before);
    EXPECT_FALSE(Exists(Backup("")));
    EXPECT_TRUE(Logged("ERROR", kCloud, 116,
                       "FSCopyPath: failed to copy from '" + Package() + "/share/dangling' to '" +
                           app + "/share/dangling'\n"));
    EXPECT_TRUE(
        Logged("ERROR", kCloud, 255, "Failed to extract package, rollback to old installation\n"));
    EXPECT_EQ(Log().find("user installation is ready"), std::string::npos);
}

TEST_F(CloudServiceTest, UnreadablePackageFileRollsBackForAnOrdinaryUser) {
    MakeOldCopy();
    ASSERT_TRUE(WriteFile(Package() + "/secret", "root only"));
    ASSERT_EQ(chmod((Package() + "/secret").c_str(), 0600), 0);
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    ASSERT_EQ(system(("chown -R 65534:65534 '" + home + "'").c_str()), 0);
    const TreeSnapshot before = Snapshot(app);
    LinuxService service;
    EXPECT_EQ(testsupport::RunAsUnprivileged([&] { return -service.PrepareUserEnv(); }), 1);
    EXPECT_EQ(Snapshot(app), before);
    EXPECT_FALSE(Exists(Backup("")));
    EXPECT_TRUE(
        Logged("ERROR", kCloud, 255, "Failed to extract package, rollback to old installation\n"));
}

TEST_F(CloudServiceTest, CopyFailureWithoutOldCopyLeavesThePartialCopy) {
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    ASSERT_EQ(symlink("/nonexistent/target", (Package() + "/dangling").c_str()), 0);
    LinuxService service;
    EXPECT_EQ(service.PrepareUserEnv(), -1);
    EXPECT_TRUE(Exists(app));
    EXPECT_TRUE(Logged("ERROR", kCloud, 253,
                       "Failed to extract package, and no old installation to rollback\n"));
}

// ---- the folder copy ----

TEST_F(CloudServiceTest, LinkToAFolderInsideThePackageIsCopiedAsAFileNotRecursed) {
    ASSERT_TRUE(WriteFile(base / "src/real/inner", "inside"));
    ASSERT_EQ(symlink("real", (base / "src/link").c_str()), 0);
    LinuxService service;
    // The file copy of a folder cannot read it: the walk stops with a failure.
    EXPECT_EQ(service.FSCopyPath(base / "src", base / "dst"), -1);
    EXPECT_FALSE(Exists(base / "dst/link/inner"));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(base / "dst/link")));
    EXPECT_NE(Log().find("CopyFile: read: Is a directory"), std::string::npos);

    // The same link at the top is handed to the file copy and counts as done.
    EXPECT_EQ(service.FSCopyPath(base / "src/link", base / "dst2"), 0);
    EXPECT_FALSE(Exists(base / "dst2/inner"));
}

TEST_F(CloudServiceTest, CopyOfMissingOrUnreadableSource) {
    LinuxService service;
    EXPECT_EQ(service.FSCopyPath(base / "nothing", base / "dst"), -1);
    EXPECT_TRUE(Logged("ERROR", kCloud, 79,
                       "FSCopyPath: source path '" + base / "nothing" + "' does not exist\n"));

    // A folder the user cannot list counts as copied (an empty folder is made).
    ASSERT_TRUE(WriteFile(base / "closed/file", "x"));
    ASSERT_EQ(chmod((base / "closed").c_str(), 0711), 0);
    ASSERT_EQ(chmod(base.path().c_str(), 0777), 0);
    EXPECT_EQ(testsupport::RunAsUnprivileged(
                  [&] { return -service.FSCopyPath(base / "closed", base / "copy"); }),
              0);
    EXPECT_TRUE(fs::is_directory(base / "copy"));
    EXPECT_FALSE(Exists(base / "copy/file"));
    EXPECT_TRUE(
        Logged("WARNING", kCloud, 92,
               "FSCopyPath: failed to create handle  for src '" + base / "closed" + "' failed\n"));
}

// ---- extraction ----

TEST_F(CloudServiceTest, ExtractPackageUnpacksTheArchiveIntoTheUserCopy) {
    StrTable::InitStrTable();  // the progress texts, as the launcher loads them at start-up
    ASSERT_TRUE(MakeSampleInstall(root, "121"));
    LinuxService service;
    ASSERT_EQ(service.ExtractPackage(), 0);
    EXPECT_EQ(Snapshot(app), Snapshot(Package()));
    EXPECT_TRUE(
        Logged("INFO", kCloud, 153, "extract package: '" + Package() + ".vbx' -> '" + app + "'\n"));
}

TEST_F(CloudServiceTest, ExtractPackageFailsWhenTheTargetCannotBeMade) {
    ASSERT_TRUE(WriteFile(quarn, "a file where the folder should be"));
    LinuxService service;
    EXPECT_EQ(service.ExtractPackage(), -1);
    EXPECT_TRUE(Logged("ERROR", kCloud, 149, "failed to create folder: '" + app + "'\n"));
}

// ---- predecessor migration and aged folders ----

TEST_F(CloudServiceTest, MigrationWithNothingToMigrateOnlyMakesTheNewFolder) {
    LinuxService service;
    service.MigrateService();
    EXPECT_TRUE(fs::is_directory(quarn));
    EXPECT_TRUE(fs::is_empty(quarn));
    EXPECT_FALSE(Exists(nimbrel));
    EXPECT_EQ(Log().find("[ERROR]"), std::string::npos);
}

TEST_F(CloudServiceTest, MigrationMovesDataAndRemovesTheOldFolder) {
    ASSERT_TRUE(WriteFile(nimbrel + "/data/db/sync.db", "rows"));
    ASSERT_TRUE(WriteFile(nimbrel + "/Nimbrel.app/INFO", "x"));
    LinuxService service;
    service.MigrateService();
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "rows");
    EXPECT_FALSE(Exists(nimbrel));

    // Without data the old folder still goes, and nothing is moved.
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin", "x"));
    service.MigrateService();
    EXPECT_FALSE(Exists(nimbrel));
    EXPECT_EQ(ReadFile(quarn + "/data/db/sync.db"), "rows");
}

TEST_F(CloudServiceTest, FailedDataMoveIsStillFollowedByRemovingTheOldFolder) {
    ASSERT_TRUE(WriteFile(nimbrel + "/data/old.db", "old rows"));
    ASSERT_TRUE(WriteFile(quarn + "/data/new.db", "new rows"));
    LinuxService service;
    service.MigrateService();
    EXPECT_TRUE(Logged("ERROR", kCloud, 287, "Failed to move data to Corvane Quarn folder\n"));
    EXPECT_FALSE(Exists(nimbrel)) << "the old data goes with the old folder";
    EXPECT_EQ(ReadFile(quarn + "/data/new.db"), "new rows");
}

TEST_F(CloudServiceTest, MigrationStopsWhenTheNewFolderCannotBeMade) {
    ASSERT_TRUE(WriteFile(nimbrel + "/data/old.db", "old rows"));
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(home.c_str(), 0755), 0);
    LinuxService service;
    EXPECT_EQ(testsupport::RunAsUnprivileged([&] {
                  service.MigrateService();
                  return 0;
              }),
              0);
    EXPECT_TRUE(Logged("ERROR", kCloud, 278, "Failed to create Corvane Quarn folder\n"));
    EXPECT_EQ(ReadFile(nimbrel + "/data/old.db"), "old rows");
}

TEST_F(CloudServiceTest, OldFolderThatCannotBeRemovedIsReported) {
    ASSERT_TRUE(WriteFile(nimbrel + "/keep/file", "x"));
    ASSERT_TRUE(MakeDirs(quarn));
    ASSERT_EQ(chmod(base.path().c_str(), 0755), 0);
    ASSERT_EQ(system(("chown 65534 '" + home + "' '" + quarn + "'").c_str()), 0);
    LinuxService service;
    EXPECT_EQ(testsupport::RunAsUnprivileged([&] {
                  service.MigrateService();
                  return 0;
              }),
              0);
    EXPECT_TRUE(Logged("ERROR", kCloud, 293, "Failed to remove old .Nimbrel folder\n"));
    EXPECT_TRUE(Exists(nimbrel + "/keep/file"));
}

TEST_F(CloudServiceTest, AgedAppFolderIsRemovedAndTheLineWrittenEveryRun) {
    ASSERT_TRUE(WriteFile(nimbrel + "/app/bin/old-ui", "x"));
    ASSERT_TRUE(WriteFile(nimbrel + "/data/keep", "x"));
    LinuxService service;
    service.RemoveAgedFolders();
    service.RemoveAgedFolders();
    EXPECT_FALSE(Exists(nimbrel + "/app"));
    EXPECT_TRUE(Exists(nimbrel + "/data/keep"));
    EXPECT_EQ(
        CountInLog("[INFO] cloud-service.cpp(301): removing aged app folder " + nimbrel + "/app\n"),
        2u);
}

}  // namespace
