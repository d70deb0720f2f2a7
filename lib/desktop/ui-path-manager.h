#pragma once

#include <QMap>
#include <QString>

// Process-wide table of named paths, filled once at start-up.
class UIPathManager {
public:
    static UIPathManager* getInstance();
    void setPath(const QString& key, const QString& value);
    QString getPath(const QString& key);

private:
    QMap<QString, QString> paths;
};
