#pragma once

#include <QString>

// Display scale factor and style sheets scaled by it.
class DPIinfo {
public:
    static DPIinfo* getInstance();
    double getDPI();
    QString getScaledStyleSheet(QString sheet);
};
