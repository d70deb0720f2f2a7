#include "lib/desktop/vesk-locale.h"

#include <QByteArray>
#include <QLocale>
#include <QStringList>

VeskLocale* VeskLocale::getInstance() {
    static VeskLocale instance;
    return &instance;
}

// The user's first interface language, in the order the C library and Qt consult the
// environment. Read afresh on every call (QLocale::system() caches it for the process).
QString VeskLocale::getDefaultLanguage() {
    QString name;
    const QByteArray languages = qgetenv("LANGUAGE");
    if (!languages.isEmpty()) {
        name = QString::fromLatin1(languages).split(':', Qt::SkipEmptyParts).value(0);
    }
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (!name.isEmpty())
            break;
        name = QString::fromLatin1(qgetenv(var));
    }
    if (name.isEmpty()) {
        name = QLocale::system().name();
    }
    return VeskLanguageCode(name);
}

QString VeskLanguageCode(const QString& locale_name) {
    // "de_DE.UTF-8@euro" -> "de_DE"; "C" and "POSIX" fall through to English.
    QString name = locale_name.section('.', 0, 0).section('@', 0, 0);
    name.replace('-', '_');
    const QString lang = name.section('_', 0, 0).toLower();
    const QString region = name.section('_', 1, 1).toUpper();

    if (lang == "zh") {
        if (region == "TW" || region == "HK")
            return "cht";
        if (region.isEmpty() || region == "CN" || region == "SG")
            return "chs";
        return "enu";
    }
    if (lang == "pt")
        return region == "BR" ? "ptb" : "ptg";

    static const struct {
        const char* lang;
        const char* code;
    } kCodes[] = {
        {"cs", "csy"}, {"da", "dan"}, {"en", "enu"}, {"fr", "fre"}, {"de", "ger"},
        {"hu", "hun"}, {"it", "ita"}, {"ja", "jpn"}, {"ko", "krn"}, {"nl", "nld"},
        {"nb", "nor"}, {"nn", "nor"}, {"no", "nor"}, {"pl", "plk"}, {"ru", "rus"},
        {"es", "spn"}, {"sv", "sve"}, {"th", "tha"}, {"tr", "trk"},
    };
    for (const auto& entry : kCodes) {
        if (lang == QLatin1String(entry.lang))
            return QString::fromLatin1(entry.code);
    }
    return "enu";
}
