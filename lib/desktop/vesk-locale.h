#pragma once

#include <QString>

// The user's interface language as a three-letter code ("enu", "ger", ...).
class VeskLocale {
public:
    static VeskLocale* getInstance();
    QString getDefaultLanguage();
};
