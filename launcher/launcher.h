#pragma once

#include <QObject>
#include <QProgressDialog>
#include <QString>
#include <QThread>

#include <cstdint>

class Service;
class Worker;
class ProcessingProgressDialog;

// Runs the upgrade off the GUI thread and shows its progress; quits the application when done.
class Launcher : public QObject {
    Q_OBJECT
public:
    Launcher();
    ~Launcher() override;
    void Run();
    void Start();

signals:
    void sigStart();

private slots:
    void LaunchDone();
    void UpdateProgress(int total, int steps);
    void SetLabelText(QString text);
    void ShowMsgBox();

private:
    friend struct LauncherTestAccess;
    Worker* worker;
    ProcessingProgressDialog* dialog;
};

// The event loop the worker lives on.
class HandlerThread : public QThread {
    Q_OBJECT
protected:
    void run() override;
};

// Takes the service through one login's sequence on its own thread.
class Worker : public QObject {
    Q_OBJECT
public:
    Worker();
    ~Worker() override;
    void StartThread();
    void QuitThread();
    void JoinThread();

signals:
    void sigServiceDone();
    void sigShowMsg();
    void sigUpdateProgress(int total, int steps);
    void sigSetLabelText(QString text);

private slots:
    void HandleServicce();

private:
    friend struct LauncherTestAccess;
    HandlerThread* thread;
    Service* service;
    int32_t state;
    int32_t retries;
};

// The progress window shown while the user's copy is replaced.
class ProcessingProgressDialog : public QProgressDialog {
    Q_OBJECT
public:
    ProcessingProgressDialog();
    void setVisible(bool visible) override;

protected:
    void showEvent(QShowEvent* event) override;
};
