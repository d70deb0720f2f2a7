#pragma once

#include <QString>

// The user's interface language as a three-letter code ("enu", "ger", ...).
class VeskLocale {
public:
    static VeskLocale* getInstance();
    QString getDefaultLanguage();
};

// The three-letter code of a locale name such as "de_DE.UTF-8", "pt-BR" or "zh_TW";
// "enu" for anything the client is not translated into.
QString VeskLanguageCode(const QString& locale_name);
