#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTranslator>

#include "launcher/str-table.h"

// Every language translates the launcher's rows, keys are found whatever their case, and the
// escape for a line break becomes one.
TEST(StrTable, TranslationsKeysAndEscapes) {
    static int argc = 1;
    static char name[] = "test-str-table", *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    StrTable::InitStrTable();
    auto rows = [] {
        return StrTable::LoadStr(54) + StrTable::LoadStr(531) + StrTable::LoadStr(716);
    };
    const QString english = rows();
    for (const char* code :
         {"chs", "cht", "csy", "dan", "enu", "fre", "ger", "hun", "ita", "jpn", "krn",
          "nld", "nor", "plk", "ptb", "ptg", "rus", "spn", "sve", "tha", "trk"}) {
        QTranslator translator;
        ASSERT_TRUE(translator.load(QString(":/") + code + ".qm")) << code;
        QCoreApplication::installTranslator(&translator);
        const QString text = rows();
        EXPECT_EQ(text == english, std::string(code) == "enu") << code;
        EXPECT_TRUE(text.count("%1") == 2 && text.contains("Corvane Quarn")) << code;
        QCoreApplication::removeTranslator(&translator);
    }
    EXPECT_EQ(531, StrTable::LookupStrID(QString(StrTable::ktab[531]).toUpper()));
    EXPECT_EQ(-1, StrTable::LookupStrID("app_name_quarn_clien"));
    const int restart = StrTable::LookupStrID("msg_language_restart");
    EXPECT_EQ(QString(StrTable::stab[restart]).replace("\\n", "\n"), StrTable::LoadStr(restart));
}
