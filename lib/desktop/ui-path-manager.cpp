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

std::string PathUtf8(const char* key) {
    return UIPathManager::getInstance()->getPath(QString::fromLatin1(key)).toUtf8().toStdString();
}

void FillQuarnPathTable(const std::function<QString()>& user_install_root,
                        const QString& launcher_dir) {
    static const struct {
        const char* key;
        const char* below_root;
    } kUserPaths[] = {
        {"user_corvane_quarn_path", "/.CorvaneQuarn"},
        {"user_corvane_quarn_app_path", "/.CorvaneQuarn/CorvaneQuarn.app"},
        {"user_corvane_quarn_resource_path", "/.CorvaneQuarn/CorvaneQuarn.app"},
        {"user_corvane_quarn_data_path", "/.CorvaneQuarn/data"},
        {"user_corvane_quarn_working_dir_path", "/.CorvaneQuarn/CorvaneQuarn.app/bin"},
        {"user_corvane_quarn_ui_path", "/.CorvaneQuarn/CorvaneQuarn.app/bin/cloud-quarn-ui"},
        {"user_nimbrel_path", "/.Nimbrel"},
        {"user_nimbrel_resource_path", "/.Nimbrel/Nimbrel.app"},
    };
    UIPathManager* paths = UIPathManager::getInstance();
    for (const auto& entry : kUserPaths) {
        paths->setPath(entry.key, QDir::cleanPath(user_install_root() + entry.below_root));
    }
    paths->setPath("root_resource_path", QDir::cleanPath(launcher_dir + "/.."));
}
