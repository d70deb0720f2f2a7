#pragma once

#include <QMap>
#include <QString>

#include <functional>
#include <string>

// Process-wide table of named paths, filled once at start-up.
class UIPathManager {
public:
    static UIPathManager* getInstance();
    void setPath(const QString& key, const QString& value);
    QString getPath(const QString& key);

private:
    QMap<QString, QString> paths;
};

// Keys of the path table.
namespace PathKey {
constexpr char kUserQuarn[] = "user_corvane_quarn_path";
constexpr char kUserQuarnApp[] = "user_corvane_quarn_app_path";
constexpr char kUserQuarnResource[] = "user_corvane_quarn_resource_path";
constexpr char kUserQuarnData[] = "user_corvane_quarn_data_path";
constexpr char kUserQuarnWorkingDir[] = "user_corvane_quarn_working_dir_path";
constexpr char kUserQuarnUi[] = "user_corvane_quarn_ui_path";
constexpr char kUserNimbrel[] = "user_nimbrel_path";
constexpr char kUserNimbrelResource[] = "user_nimbrel_resource_path";
constexpr char kRootResource[] = "root_resource_path";
// Logged at start-up, never filled: they read empty.
constexpr char kUserNimbrelApp[] = "user_nimbrel_app_path";
constexpr char kUserNimbrelData[] = "user_nimbrel_data_path";
constexpr char kUserNimbrelWorkingDir[] = "user_nimbrel_working_dir_path";
constexpr char kUserNimbrelQuarnUi[] = "user_nimbrel_quarn_ui_path";
}  // namespace PathKey

// The one way to read the table: a key's path, empty when the key was never written.
QString GetPath(const char* key);
// The same as the narrow UTF-8 string the service and the file layer take.
std::string PathUtf8(const char* key);

// Writes the launcher's nine keys: the per-user paths below the user install root (asked for
// afresh for every key) and the system-wide root, the folder above the launcher's own folder.
// Every value is cleaned (no trailing separator, no "." or "..").
void FillQuarnPathTable(const std::function<QString()>& user_install_root,
                        const QString& launcher_dir);
