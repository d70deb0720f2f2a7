#include <gtest/gtest.h>

#include <set>

#include <QCoreApplication>
#include <QTranslator>

#include "launcher/str-table.h"

// Keys are unique whatever their case, the launcher's rows read the same in every language
// but English, and escapes become line breaks and tabs.
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
    const int ready = StrTable::LookupStrID("desc_tarv_env_preparation_done_quarn"),
              product = StrTable::LookupStrID("app_name_quarn_client"),
              initializing = StrTable::LookupStrID("desc_tarv_env_preparing_quarn");
    EXPECT_EQ("54 531 716", std::to_string(ready) + " " + std::to_string(product) + " " +
                                std::to_string(initializing));
    auto rows = [&] {
        return StrTable::LoadStr(ready) + "|" + StrTable::LoadStr(product) + "|" +
               StrTable::LoadStr(initializing);
    };
    const QString english = rows();
    EXPECT_EQ("%1 is ready.|Corvane Quarn Client|%1 is initializing...", english);
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
    const QString restart = StrTable::stab[StrTable::LookupStrID("msg_language_restart")];
    EXPECT_EQ(QString(restart).replace("\\n", "\n"),
              StrTable::LoadStr(StrTable::LookupStrID("msg_language_restart")));
}
