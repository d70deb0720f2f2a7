#include <gtest/gtest.h>

#include <set>

#include <QCoreApplication>
#include <QTranslator>

#include "launcher/str-table.h"

// Keys are unique whatever their case, every language translates the launcher's rows, and the
// escape for a line break becomes one.
TEST(StrTable, RowsKeysAndTranslations) {
    static int argc = 1;
    static char name[] = "test-str-table", *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    StrTable::InitStrTable();
    std::set<QString> seen;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString key = StrTable::ktab[id];
        EXPECT_TRUE(!key.isEmpty() && seen.insert(key.toLower()).second) << id;
        EXPECT_EQ(id, StrTable::LookupStrID(id % 2 ? key.toUpper() : key)) << id;
    }
    EXPECT_EQ(-1, StrTable::LookupStrID("app_name_quarn_clien"));
    // The launcher's rows, by the ids it uses; their English texts are checked where it shows them.
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
    const int restart = StrTable::LookupStrID("msg_language_restart");
    EXPECT_EQ(QString(StrTable::stab[restart]).replace("\\n", "\n"), StrTable::LoadStr(restart));
}
