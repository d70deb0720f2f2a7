#include "lib/desktop/dpi-info.h"

#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>

#include <cmath>

DPIinfo* DPIinfo::getInstance() {
    static DPIinfo instance;
    return &instance;
}

// 96 logical DPI is the scale of 1.0 that every size of the interface is drawn for.
double DPIinfo::getDPI() {
    if (forced_factor > 0.0)
        return forced_factor;
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen)
        return 1.0;
    const double dpi = screen->logicalDotsPerInch();
    return dpi > 0.0 ? dpi / 96.0 : 1.0;
}

QString DPIinfo::getScaledStyleSheet(QString sheet) {
    const double factor = getDPI();
    static const QRegularExpression kPixels("(\\d+(?:\\.\\d+)?)px");
    QString out;
    int last = 0;
    auto it = kPixels.globalMatch(sheet);
    while (it.hasNext()) {
        const QRegularExpressionMatch m = it.next();
        out += sheet.midRef(last, m.capturedStart() - last);
        // Whole pixels stay whole; a fractional size keeps two decimals.
        const double scaled = m.captured(1).toDouble() * factor;
        if (m.captured(1).contains('.')) {
            out += QString::number(std::round(scaled * 100.0) / 100.0) + "px";
        } else {
            out += QString::number(std::lround(scaled)) + "px";
        }
        last = m.capturedEnd();
    }
    out += sheet.midRef(last);
    return out;
}
