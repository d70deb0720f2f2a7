#include "lib/desktop/ui-path-manager.h"

#include <QDir>

UIPathManager* UIPathManager::getInstance() {
    // Made on first use; lives until the process ends.
    static UIPathManager instance;
    return &instance;
}

void UIPathManager::setPath(const QString& key, const QString& value) {
    paths.insert(key, value);
}

QString UIPathManager::getPath(const QString& key) {
    return paths.value(key);
}

QString GetPath(const char* key) {
    return UIPathManager::getInstance()->getPath(QString::fromLatin1(key));
}

std::string PathUtf8(const char* key) {
    return GetPath(key).toUtf8().toStdString();
}

void FillQuarnPathTable(const std::function<QString()>& user_install_root,
                        const QString& launcher_dir) {
    static const struct {
        const char* key;
        const char* below_root;
    } kUserPaths[] = {
        {PathKey::kUserQuarn, "/.CorvaneQuarn"},
        {PathKey::kUserQuarnApp, "/.CorvaneQuarn/CorvaneQuarn.app"},
        {PathKey::kUserQuarnResource, "/.CorvaneQuarn/CorvaneQuarn.app"},
        {PathKey::kUserQuarnData, "/.CorvaneQuarn/data"},
        {PathKey::kUserQuarnWorkingDir, "/.CorvaneQuarn/CorvaneQuarn.app/bin"},
        {PathKey::kUserQuarnUi, "/.CorvaneQuarn/CorvaneQuarn.app/bin/cloud-quarn-ui"},
        {PathKey::kUserNimbrel, "/.Nimbrel"},
        {PathKey::kUserNimbrelResource, "/.Nimbrel/Nimbrel.app"},
    };
    UIPathManager* paths = UIPathManager::getInstance();
    for (const auto& entry : kUserPaths) {
        paths->setPath(entry.key, QDir::cleanPath(user_install_root() + entry.below_root));
    }
    paths->setPath(PathKey::kRootResource, QDir::cleanPath(launcher_dir + "/.."));
}
