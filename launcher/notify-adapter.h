#pragma once

#include <QObject>
#include <QString>

// Process-wide relay of progress and label text from worker code to the dialog.
class Notify_Adapter : public QObject {
    Q_OBJECT
public:
    static Notify_Adapter* GetInstance();
    void UpdateProgress(int total, int current);
    void UpdateDialogText(QString text);
signals:
    void sigUpdateProgress(int total, int current);
    void sigUpdateDialogText(QString text);
};
