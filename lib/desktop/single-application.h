#pragma once

#include <QApplication>

// Application object that knows whether another launcher of this user already runs.
class QtSingleApplication : public QApplication {
    Q_OBJECT
public:
    QtSingleApplication(int& argc, char** argv, bool GUIenabled = true);
    ~QtSingleApplication() override;
    bool isRunning();

private:
    int lock_fd = -1;
    bool running = false;
};
