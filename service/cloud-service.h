#pragma once

#include <QString>
#include <functional>
#include <string>

// The upgrade service: decides, installs, migrates and starts the user's copy of the client.
// Its declarations are the published interface and stay as they are, also SetTimeout and
// timeout, which nothing reads.
class Service {
public:
    struct VersionInfo {
        std::string major_version, minor_version, build_version, icon_overlay_version;
    };
    Service();
    virtual ~Service();
    virtual void StopService() = 0;
    virtual void SetTimeout(int timeout);
    virtual int HandlePackageUpgrade() = 0;
    virtual void PostUpgrade() = 0;
    virtual void PreUpgrade() = 0;
    virtual bool IsNeedUpgrade() = 0;
    virtual bool PerUserBinPathExist() = 0;
    virtual int ExtractPackage();
    virtual int CopyPackage();
    virtual void LoadSourceVersion();
    virtual void LoadTargetVersion();
    virtual int PrepareUserEnv();
    virtual void MigrateService();
    int FSCopyPath(const std::string& source, const std::string& dest);
    void RemoveAgedFolders();
    static QString GetUserInstallPath();

    int timeout;
    std::string app_path;
    VersionInfo target_version;
    VersionInfo source_version;
    // Told of every whole percent of the package copy (files written of files in all); the
    // owner of the service decides where that goes.
    std::function<void(int total, int done)> copy_progress;
};

struct PackageInfo {
    std::string images_path, user_folder_path, debug_log_path, package_path, conf_path;
    PackageInfo();
};
