#pragma once

#include <QObject>
#include <QProgressDialog>
#include <QString>
#include <QThread>

#include <memory>

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
    // Declared in this order so that the worker goes first, then the dialog.
    std::unique_ptr<ProcessingProgressDialog> dialog;
    std::unique_ptr<Worker> worker;
};

// The event loop the worker lives on (QThread's own run() serves the queued calls).
class HandlerThread : public QThread {
    Q_OBJECT
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
    // Declared in this order so that the thread goes first, then the service.
    std::unique_ptr<Service> service;
    std::unique_ptr<HandlerThread> thread;
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
