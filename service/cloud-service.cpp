#include "service/cloud-service.h"

#include <QDir>
#include <QProcessEnvironment>
#include <QSettings>
#include <QStringList>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "extractor/extractor.h"
#include "lib/desktop/ui-path-manager.h"
#include "lib/file/file-op.h"
#include "log/log.h"

namespace {

const char* const kComponent = "service_debug";

// A path in the system's own separators, as a narrow string.
std::string NativePath(const QString& path) {
    return QDir::toNativeSeparators(path).toUtf8().toStdString();
}

bool IsUOSDesktop() {
    const QString desktop = QProcessEnvironment::systemEnvironment().value(
        QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("ubuntu:GNOME"));
    LOG_AT(DEBUG, kComponent, 25, "Current Desktop is %s\n", desktop.toUtf8().constData());
    return desktop == QLatin1String("Deepin");
}

// Backup name number n of the application folder: "_tmp", then "_tmp1" to "_tmp9".
std::string GetAppBackupDir(const std::string& base, int n) {
    std::string name = base + "_tmp";
    if (n == 0) {
        return name;
    }
    char postfix[8];
    if (snprintf(postfix, sizeof(postfix), "%d", n) < 0) {
        LOG_AT(ERROR, kComponent, 218, "snprintf failed (continuing without postfix)");
        postfix[0] = '\0';
    }
    return name + postfix;
}

// Fills a version record from the group "Version" of an INFO file; keys the file does not hold
// leave their fields as they were.
void ReadVersionInfo(const std::string& path, Service::VersionInfo& version) {
    // Anything but a regular file yields no keys, as a missing one does: the settings reader
    // would wait for ever on a FIFO, and every later login with it.
    if (!FSIsRegularFile(path)) {
        return;
    }
    QSettings ini(QString::fromUtf8(path.c_str()), QSettings::IniFormat);
    const struct {
        const char* key;  // group/key
        std::string* field;
    } fields[] = {
        {"Version/major_version", &version.major_version},
        {"Version/minor_version", &version.minor_version},
        {"Version/build_version", &version.build_version},
        {"Version/icon_overlay_version", &version.icon_overlay_version},
    };
    for (const auto& f : fields) {
        const QString key = QLatin1String(f.key);
        if (ini.contains(key)) {
            QString text = ini.value(key).toString();
#if QT_VERSION_MAJOR >= 6
            // Qt 6 reads the file as UTF-8; the launcher has always taken each byte for one
            // character, as Qt 5's reader does, and its versions and log lines keep that text.
            text = QString::fromLatin1(text.toUtf8());
#endif
            *f.field = text.toUtf8().toStdString();
        }
    }
}

// Progress of one package copy: files written of the files counted before it started.
struct CopyProgress {
    std::function<void(int total, int done)> report;  // may be empty: the counting still runs
    int total = 0;
    int done = 0;
    int shown = -1;  // the percentage last reported
};

// One more file written: reported once per whole percent, so that a package of many small files
// does not flood the bar with reports.
void CountCopied(CopyProgress* progress) {
    if (progress == nullptr || progress->total <= 0 || progress->done >= progress->total) {
        return;
    }
    ++progress->done;
    const int percent = static_cast<int>(int64_t{progress->done} * 100 / progress->total);
    if (percent != progress->shown) {
        progress->shown = percent;
        if (progress->report) {
            progress->report(progress->total, progress->done);
        }
    }
}

// The recursive folder copy; reports each file written when a progress is given.
int CopyPath(const std::string& source, const std::string& dest, CopyProgress* progress) {
    LOG_AT(DEBUG, kComponent, 71, "copy from '%s' to '%s'\n", source.c_str(), dest.c_str());
    _FILE_INFO_tag info;
    if (FSStat(source, info, false) < 0) {
        LOG_AT(ERROR, kComponent, 74, "FSCopyPath: failed to stat source '%s'\n", source.c_str());
        return -1;
    }
    if (!info.exists) {
        LOG_AT(ERROR, kComponent, 79, "FSCopyPath: source path '%s' does not exist\n",
               source.c_str());
        return -1;
    }
    if (info.type != FS_TYPE_FOLDER) {
        // A single file (or a link, also one to a folder) at the top: its copy result is not
        // part of the answer.
        FSCopy(source, dest, false, false);
        return 0;
    }
    if (FSMKDir(dest, true) < 0) {
        LOG_AT(ERROR, kComponent, 87, "FSCopyPath: failed to create dest folder '%s'\n",
               dest.c_str());
        return -1;
    }
    const int walked =
        FSWalkFolder(source, false, [&](const std::string& s, const DIR_ENTRY& entry) {
            const std::string d = dest + "/" + entry.name;
            const bool folder = FSEntryType(s, entry) == FS_TYPE_FOLDER;
            const int rc = folder ? CopyPath(s, d, progress) : FSCopy(s, d, false, true);
            if (rc < 0) {
                LOG_AT(ERROR, kComponent, 116, "FSCopyPath: failed to copy from '%s' to '%s'\n",
                       s.c_str(), d.c_str());
                return false;
            }
            if (!folder) {
                CountCopied(progress);
            }
            return true;
        });
    if (walked == FS_WALK_NOT_OPENED) {
        LOG_AT(WARNING, kComponent, 92,
               "FSCopyPath: failed to create handle  for src '%s' failed\n", source.c_str());
        return 0;
    }
    return walked == FS_WALK_STOPPED ? -1 : 0;
}

}  // namespace

// The timeout starts at 0 so that no copy of a service carries garbage.
Service::Service() : timeout(0) {}

Service::~Service() = default;

void Service::SetTimeout(int value) {
    timeout = value;
}

int Service::FSCopyPath(const std::string& source, const std::string& dest) {
    return CopyPath(source, dest, nullptr);
}

int Service::CopyPackage() {
    const std::string source = PathUtf8(PathKey::kRootResource) + "/package/nimbrel";
    const std::string dest = PathUtf8(PathKey::kUserQuarnApp);
    LOG_AT(INFO, kComponent, 134, "copy package:'%s' -> '%s' \n", source.c_str(), dest.c_str());
    CopyProgress progress;
    progress.report = copy_progress;
    progress.total = FSCountFiles(source);
    return CopyPath(source, dest, &progress);
}

int Service::ExtractPackage() {
    const std::string source = PathUtf8(PathKey::kRootResource) + "/package/nimbrel.vbx";
    const std::string dest = PathUtf8(PathKey::kUserQuarnApp);
    if (FSMKDir(dest, true) < 0) {
        LOG_AT(ERROR, kComponent, 149, "failed to create folder: '%s'\n", dest.c_str());
        return -1;
    }
    LOG_AT(INFO, kComponent, 153, "extract package: '%s' -> '%s'\n", source.c_str(), dest.c_str());
    Extractor extractor;
    extractor.SetSource(source);
    extractor.SetTarget(dest);
    return extractor.Extract();
}

void Service::LoadSourceVersion() {
    const std::string path = PathUtf8(PathKey::kUserQuarnResource) + "/INFO";
    if (!IsFileExist(path, false)) {
        LOG_AT(INFO, kComponent, 172, "source does not exist\n");
        return;
    }
    ReadVersionInfo(path, source_version);
    LOG_AT(INFO, kComponent, 188, "source_version = (%s, %s, %s, %s)\n",
           source_version.major_version.c_str(), source_version.minor_version.c_str(),
           source_version.build_version.c_str(), source_version.icon_overlay_version.c_str());
}

void Service::LoadTargetVersion() {
    // A missing package INFO simply yields no keys: the package then counts as build 0.
    const std::string path = PathUtf8(PathKey::kRootResource) + "/INFO";
    const bool readable = access(path.c_str(), R_OK) == 0;
    const int err = errno;
    ReadVersionInfo(path, target_version);
    LOG_AT(INFO, kComponent, 207, "target_version = (%s, %s, %s, %s)\n",
           target_version.major_version.c_str(), target_version.minor_version.c_str(),
           target_version.build_version.c_str(), target_version.icon_overlay_version.c_str());
    // A package of build 0 is never installed over a user's copy: say why at once.
    if (!readable) {
        LOG_HERE(WARNING, kComponent,
                 "cannot read the package version file '%s': %s; the package counts as build 0\n",
                 path.c_str(), strerror(err));
    } else if (atoi(target_version.build_version.c_str()) <= 0) {
        LOG_HERE(WARNING, kComponent,
                 "the package version file '%s' holds no build number (build_version '%s'); the "
                 "package counts as build 0\n",
                 path.c_str(), target_version.build_version.c_str());
    }
}

int Service::PrepareUserEnv() {
    const int kMaxAttempts = 10;
    int attempt = 0;
    std::string backup;
    if (IsFileExist(app_path, false)) {
        for (;;) {
            backup = GetAppBackupDir(app_path, attempt);
            if (FSRename(app_path, backup, false) == 0) {
                break;
            }
            LOG_AT(ERROR, kComponent, 236, "failed to backup app from '%s' -> '%s'\n",
                   app_path.c_str(), backup.c_str());
            if (++attempt >= kMaxAttempts) {
                LOG_AT(ERROR, kComponent, 240,
                       "failed to backup app from '%s' -> '%s' at max retries, exiting\n",
                       app_path.c_str(), backup.c_str());
                return -1;
            }
        }
    }

    if (CopyPackage() != 0) {
        if (backup.empty()) {
            LOG_AT(ERROR, kComponent, 253,
                   "Failed to extract package, and no old installation to rollback\n");
            return -1;
        }
        LOG_AT(ERROR, kComponent, 255, "Failed to extract package, rollback to old installation\n");
        FSRemove(app_path, false);
        FSRename(backup, app_path, false);
        return -1;
    }

    LOG_AT(INFO, kComponent, 262, "user installation is ready, removing backup app\n");
    // The copy may still be in the page cache: a power cut after the backups are gone could
    // leave the new INFO beside empty files and no old copy. The backups go only once the new
    // copy is on the disk; otherwise they stay, and the next installation removes them.
    if (FSSyncFs(app_path) != 0) {
        LOG_HERE(WARNING, kComponent, "new installation not on disk yet, keeping backup app\n");
        return 0;
    }
    // Every name tried is removed, also a stale "_tmp" left by an interrupted earlier run.
    for (int n = 0; n <= attempt; ++n) {
        FSRemove(GetAppBackupDir(app_path, n), false);
    }
    return 0;
}

void Service::MigrateService() {
    const std::string old_path = NativePath(GetPath(PathKey::kUserNimbrel));
    const std::string new_path = NativePath(GetPath(PathKey::kUserQuarn));
    if (!IsFileExist(new_path, true) && FSMKDir(new_path, true) < 0) {
        LOG_AT(ERROR, kComponent, 278, "Failed to create Corvane Quarn folder\n");
        return;
    }
    const std::string old_data = NativePath(QString::fromUtf8(old_path.c_str()) + "/data");
    const std::string new_data = NativePath(QString::fromUtf8(new_path.c_str()) + "/data");
    if (IsFileExist(old_data, true) && FSRename(old_data, new_data, true) < 0) {
        LOG_AT(ERROR, kComponent, 287, "Failed to move data to Corvane Quarn folder\n");
    }
    // The old folder goes also after a failed move: the predecessor is not kept half-alive.
    if (IsFileExist(old_path, true) && FSRemove(old_path, false) < 0) {
        LOG_AT(ERROR, kComponent, 293, "Failed to remove old .Nimbrel folder\n");
    }
}

void Service::RemoveAgedFolders() {
    const std::string path = PathUtf8(PathKey::kUserNimbrel) + "/app";
    LOG_AT(INFO, kComponent, 301, "removing aged app folder %s\n", path.c_str());
    FSRemove(path, false);
}

QString Service::GetUserInstallPath() {
    if (IsUOSDesktop()) {
        const QString data = QProcessEnvironment::systemEnvironment().value(
            QStringLiteral("XDG_DATA_HOME"), QString());
        LOG_AT(DEBUG, kComponent, 41, "user install path is %s\n", data.toUtf8().constData());
        return data.isEmpty() ? QDir::homePath() : data;
    }
    return QDir::homePath();
}

PackageInfo::PackageInfo()
    : images_path("/opt/Corvane/CorvaneQuarn/images"),
      user_folder_path(
          (QDir::homePath() + QStringLiteral("/.CorvaneQuarn")).toUtf8().toStdString()),
      debug_log_path("/opt/Corvane/CorvaneQuarn/log/launcher.debug"),
      package_path("/opt/Corvane/CorvaneQuarn/package/nimbrel.vbx"),
      conf_path("/opt/Corvane/CorvaneQuarn/conf") {}
