#pragma once
// The path table filled the way the launcher fills it at start-up, for tests, the reliability
// driver and the benchmarks.

#include <QDir>
#include <QString>

#include <string>

#include "lib/desktop/ui-path-manager.h"
#include "service/cloud-service.h"

namespace servicetest {

// The nine keys the launcher writes, in its order, each value cleaned; HOME is asked afresh
// for every key, the system root is the folder above the launcher's own folder.
inline void FillPathTable(const std::string& launcher_dir) {
    UIPathManager* table = UIPathManager::getInstance();
    const QString app_dir = QString::fromStdString(launcher_dir);
    const struct {
        const char* key;
        const char* below_home;
    } per_user[] = {
        {"user_corvane_quarn_path", "/.CorvaneQuarn"},
        {"user_corvane_quarn_app_path", "/.CorvaneQuarn/CorvaneQuarn.app"},
        {"user_corvane_quarn_resource_path", "/.CorvaneQuarn/CorvaneQuarn.app"},
        {"user_corvane_quarn_data_path", "/.CorvaneQuarn/data"},
        {"user_corvane_quarn_working_dir_path", "/.CorvaneQuarn/CorvaneQuarn.app/bin"},
        {"user_corvane_quarn_ui_path", "/.CorvaneQuarn/CorvaneQuarn.app/bin/cloud-quarn-ui"},
        {"user_nimbrel_path", "/.Nimbrel"},
        {"user_nimbrel_resource_path", "/.Nimbrel/Nimbrel.app"},
    };
    for (const auto& row : per_user) {
        table->setPath(QString::fromLatin1(row.key),
                       QDir::cleanPath(Service::GetUserInstallPath() + row.below_home));
    }
    table->setPath(QStringLiteral("root_resource_path"), QDir::cleanPath(app_dir + "/.."));
}

}  // namespace servicetest
