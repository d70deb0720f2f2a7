#pragma once

#include <QString>

// Display scale factor and style sheets scaled by it.
class DPIinfo {
public:
    static DPIinfo* getInstance();
    double getDPI();
    QString getScaledStyleSheet(QString sheet);

private:
    friend struct DPIinfoTestAccess;
    double forced_factor = 0.0;  // set by tests to stand for a display of that scale
};
