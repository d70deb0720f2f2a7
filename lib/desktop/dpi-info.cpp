#include "lib/desktop/dpi-info.h"

#include <QGuiApplication>
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

namespace {

bool IsDigit(QChar c) {
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

int DigitsEnd(const QString& text, int from) {
    while (from < text.size() && IsDigit(text[from])) {
        ++from;
    }
    return from;
}

// Whole pixels stay whole; a fractional size keeps two decimals.
QString ScaledPixels(const QString& number, double factor) {
    const double scaled = number.toDouble() * factor;
    if (number.contains(QLatin1Char('.'))) {
        return QString::number(std::round(scaled * 100.0) / 100.0) + "px";
    }
    return QString::number(std::lround(scaled)) + "px";
}

}  // namespace

// Scales every "[<digits>][.<digits>]px". A plain scan rather than a regular expression: the
// sheet is scaled at every login, and compiling a pattern would cost more than the scan.
QString DPIinfo::getScaledStyleSheet(QString sheet) {
    const double factor = getDPI();
    QString out;
    int last = 0;
    int at = 0;
    while (at < sheet.size()) {
        if (!IsDigit(sheet[at])) {
            ++at;
            continue;
        }
        const int whole_end = DigitsEnd(sheet, at);
        int end = whole_end;
        if (end + 1 < sheet.size() && sheet[end] == QLatin1Char('.') && IsDigit(sheet[end + 1])) {
            end = DigitsEnd(sheet, end + 1);
        }
        if (!QStringView(sheet).mid(end).startsWith(QLatin1String("px"))) {
            at = whole_end;  // a number without a unit; what follows it may still be one
            continue;
        }
        if (at > last && sheet[at - 1] == QLatin1Char('.')) {
            --at;  // ".5px" has no digit before its point
        }
        out += QStringView(sheet).mid(last, at - last);
        out += ScaledPixels(sheet.mid(at, end - at), factor);
        last = at = end + 2;
    }
    out += QStringView(sheet).mid(last);
    return out;
}
