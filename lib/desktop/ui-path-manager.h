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

// A key's path as the narrow UTF-8 string the service and the file layer take.
std::string PathUtf8(const char* key);

// Writes the launcher's nine keys: the per-user paths below the user install root (asked for
// afresh for every key) and the system-wide root, the folder above the launcher's own folder.
// Every value is cleaned (no trailing separator, no "." or "..").
void FillQuarnPathTable(const std::function<QString()>& user_install_root,
                        const QString& launcher_dir);
