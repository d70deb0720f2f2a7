#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QResource>
#include <QStringList>
#include <QTranslator>
#include <QXmlStreamReader>

#include "launcher/str-table.h"

namespace {

const int kReadyRow = 54;
const int kProductRow = 531;
const int kInitializingRow = 716;

const std::vector<std::string> kStoredCodes = {"chs", "cht", "jpn", "krn"};
const std::vector<std::string> kCompressedCodes = {"csy", "dan", "enu", "fre", "ger", "hun",
                                                   "ita", "nld", "nor", "plk", "ptb", "ptg",
                                                   "rus", "spn", "sve", "tha", "trk"};

std::vector<std::string> AllCodes() {
    std::vector<std::string> all = kStoredCodes;
    all.insert(all.end(), kCompressedCodes.begin(), kCompressedCodes.end());
    return all;
}

class StrTableTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static int argc = 1;
        static char name[] = "test-str-table";
        static char* argv[] = {name, nullptr};
        app_ = new QCoreApplication(argc, argv);
        StrTable::InitStrTable();
    }
    static void TearDownTestSuite() {
        delete app_;
        app_ = nullptr;
    }

    static QCoreApplication* app_;
};

QCoreApplication* StrTableTest::app_ = nullptr;

// Installs a translator for the length of one scope, as start-up does for the whole run.
class ScopedTranslator {
public:
    explicit ScopedTranslator(QTranslator* translator) : translator_(translator) {
        installed_ = QCoreApplication::installTranslator(translator_);
    }
    ~ScopedTranslator() { QCoreApplication::removeTranslator(translator_); }
    bool installed() const { return installed_; }

private:
    QTranslator* translator_;
    bool installed_ = false;
};

// Answers every look-up with one fixed text, the way a translator's file might.
class FixedTranslator : public QTranslator {
public:
    explicit FixedTranslator(QString text) : text_(std::move(text)) {}
    bool isEmpty() const override { return false; }
    QString translate(const char*, const char*, const char*, int) const override { return text_; }

private:
    QString text_;
};

TEST_F(StrTableTest, EveryRowHasAKeyAndAText) {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        ASSERT_NE(StrTable::ktab[id], nullptr) << id;
        ASSERT_NE(StrTable::stab[id], nullptr) << id;
        EXPECT_STRNE(StrTable::stab[id], "") << StrTable::ktab[id];
        const QString key = QString::fromLatin1(StrTable::ktab[id]);
        EXPECT_FALSE(key.isEmpty()) << id;
        for (QChar c : key)
            EXPECT_TRUE(c.isLetterOrNumber() || c == '_') << StrTable::ktab[id];
    }
}

TEST_F(StrTableTest, LauncherRowsCarryTheirTexts) {
    EXPECT_STREQ(StrTable::ktab[kReadyRow], "desc_tarv_env_preparation_done_quarn");
    EXPECT_STREQ(StrTable::stab[kReadyRow], "%1 is ready.");
    EXPECT_STREQ(StrTable::ktab[kProductRow], "app_name_quarn_client");
    EXPECT_STREQ(StrTable::stab[kProductRow], "Corvane Quarn Client");
    EXPECT_STREQ(StrTable::ktab[kInitializingRow], "desc_tarv_env_preparing_quarn");
    EXPECT_STREQ(StrTable::stab[kInitializingRow], "%1 is initializing...");
    EXPECT_EQ(StrTable::LoadStr(kInitializingRow).arg(StrTable::LoadStr(kProductRow)),
              "Corvane Quarn Client is initializing...");
}

TEST_F(StrTableTest, KeysAreUniqueWithoutRegardToCase) {
    std::set<QString> seen;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id)
        EXPECT_TRUE(seen.insert(QString::fromLatin1(StrTable::ktab[id]).toLower()).second)
            << StrTable::ktab[id];
}

TEST_F(StrTableTest, LookupIgnoresAsciiCase) {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id)
        ASSERT_EQ(StrTable::LookupStrID(QString::fromLatin1(StrTable::ktab[id])), id);
    EXPECT_EQ(StrTable::LookupStrID("APP_NAME_QUARN_CLIENT"), kProductRow);
    EXPECT_EQ(StrTable::LookupStrID("Desc_Tarv_Env_Preparing_Quarn"), kInitializingRow);
    // Keys written in capitals in the table still match their lower-case spelling.
    EXPECT_EQ(StrTable::LookupStrID("nsis_not_admin_confirm"),
              StrTable::LookupStrID("NSIS_NOT_ADMIN_CONFIRM"));
    EXPECT_GE(StrTable::LookupStrID("nsis_not_admin_confirm"), 0);
}

TEST_F(StrTableTest, LookupOfAnAbsentKeyIsMinusOne) {
    EXPECT_EQ(StrTable::LookupStrID(""), -1);
    EXPECT_EQ(StrTable::LookupStrID("app_name_quarn_clien"), -1);
    EXPECT_EQ(StrTable::LookupStrID("app_name_quarn_client "), -1);
    EXPECT_EQ(StrTable::LookupStrID("no_such_key"), -1);
}

TEST_F(StrTableTest, WithoutTranslatorTextsStayEnglish) {
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString english = QString::fromUtf8(StrTable::stab[id]);
        if (!english.contains('\\')) {
            ASSERT_EQ(StrTable::LoadStr(id), english) << StrTable::ktab[id];
        }
    }
    const int restart = StrTable::LookupStrID("msg_language_restart");
    ASSERT_GE(restart, 0);
    EXPECT_TRUE(QString::fromUtf8(StrTable::stab[restart]).contains("\\n"));
    EXPECT_TRUE(StrTable::LoadStr(restart).contains('\n'));
    EXPECT_FALSE(StrTable::LoadStr(restart).contains('\\'));
}

TEST_F(StrTableTest, EscapesInTranslationsBecomeBreaksAndTabs) {
    FixedTranslator translator("Zeile\\neins\\tund\\n\\nzwei \\N \\T \\");
    ScopedTranslator scope(&translator);
    ASSERT_TRUE(scope.installed());
    EXPECT_EQ(StrTable::LoadStr(kInitializingRow), "Zeile\neins\tund\n\nzwei \\N \\T \\");
}

TEST_F(StrTableTest, ResourceHoldsTheTwentyOneLanguages) {
    QStringList expected;
    for (const std::string& code : AllCodes())
        expected << QString::fromStdString(code + ".qm");
    expected.sort();
    EXPECT_EQ(QDir(":/").entryList({"*.qm"}, QDir::Files, QDir::Name), expected);

    for (const std::string& code : kStoredCodes) {
        QResource file(QString::fromStdString(":/" + code + ".qm"));
        ASSERT_TRUE(file.isValid()) << code;
        EXPECT_EQ(file.compressionAlgorithm(), QResource::NoCompression) << code;
    }
    for (const std::string& code : kCompressedCodes) {
        QResource file(QString::fromStdString(":/" + code + ".qm"));
        ASSERT_TRUE(file.isValid()) << code;
        EXPECT_EQ(file.compressionAlgorithm(), QResource::ZlibCompression) << code;
    }
}

TEST_F(StrTableTest, EveryLanguageLoadsAndTranslatesTheLauncherRows) {
    const QString english = QString::fromUtf8(StrTable::stab[kInitializingRow]);
    for (const std::string& code : AllCodes()) {
        QTranslator translator;
        ASSERT_TRUE(translator.load(QString::fromStdString(":/" + code + ".qm"))) << code;
        ScopedTranslator scope(&translator);
        ASSERT_TRUE(scope.installed()) << code;

        const QString initializing = StrTable::LoadStr(kInitializingRow);
        EXPECT_EQ(initializing.count("%1"), 1) << code;
        if (code == "enu")
            EXPECT_EQ(initializing, english);
        else
            EXPECT_NE(initializing, english) << code;
        EXPECT_FALSE(translator.translate("global", StrTable::stab[kInitializingRow]).isEmpty());
        EXPECT_FALSE(translator.translate("global", StrTable::stab[kReadyRow]).isEmpty()) << code;
        EXPECT_EQ(StrTable::LoadStr(kReadyRow).count("%1"), 1) << code;
        EXPECT_TRUE(StrTable::LoadStr(kProductRow).contains("Corvane Quarn")) << code;
    }
    EXPECT_EQ(StrTable::LoadStr(kInitializingRow), english);
}

TEST_F(StrTableTest, UnknownLanguageGivesNoTranslatorAndEnglish) {
    QTranslator translator;
    EXPECT_FALSE(translator.load(":/xyz.qm"));
    EXPECT_TRUE(translator.isEmpty());
    EXPECT_EQ(StrTable::LoadStr(kInitializingRow), "%1 is initializing...");
    EXPECT_EQ(StrTable::LoadStr(kProductRow), "Corvane Quarn Client");
}

// What lupdate would complain about in a translation file: a message outside the "global"
// context, with a comment, or whose source is no row's English text; and a launcher row left
// out or unfinished. Returns one line per problem.
QStringList TranslationFileProblems(const QByteArray& ts) {
    std::set<QString> sources;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id)
        sources.insert(QString::fromUtf8(StrTable::stab[id]));
    std::set<QString> finished;
    QStringList problems;

    QXmlStreamReader xml(ts);
    QString context, source, comment, translation, type;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            const QStringRef name = xml.name();
            if (name == QLatin1String("message")) {
                source.clear();
                comment.clear();
                translation.clear();
                type.clear();
            } else if (name == QLatin1String("name")) {
                context = xml.readElementText();
            } else if (name == QLatin1String("source")) {
                source = xml.readElementText();
            } else if (name == QLatin1String("comment")) {
                comment = xml.readElementText();
            } else if (name == QLatin1String("translation")) {
                type = xml.attributes().value("type").toString();
                translation = xml.readElementText();
            }
        } else if (xml.isEndElement() && xml.name() == QLatin1String("message")) {
            if (context != "global")
                problems << "context " + context + ": " + source;
            if (!comment.isEmpty())
                problems << "comment on: " + source;
            if (sources.count(source) == 0)
                problems << "not in the table: " + source;
            if (!translation.isEmpty() && type.isEmpty())
                finished.insert(source);
        }
    }
    if (xml.hasError())
        problems << "unreadable: " + xml.errorString();
    for (int id : {kReadyRow, kProductRow, kInitializingRow}) {
        if (finished.count(QString::fromUtf8(StrTable::stab[id])) == 0)
            problems << "row " + QString::number(id) + " not translated";
    }
    return problems;
}

TEST_F(StrTableTest, TranslationFilesMatchTheTable) {
    const QString folder = QString(LAUNCHER_SOURCE_DIR) + "/resources/translations";
    QStringList expected;
    for (const std::string& code : AllCodes())
        expected << QString::fromStdString(code + ".ts");
    expected.sort();
    EXPECT_EQ(QDir(folder).entryList({"*.ts"}, QDir::Files, QDir::Name), expected);

    for (const std::string& code : AllCodes()) {
        QFile file(folder + "/" + QString::fromStdString(code) + ".ts");
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << code;
        EXPECT_EQ(TranslationFileProblems(file.readAll()), QStringList()) << code;
    }
}

TEST_F(StrTableTest, TranslationFileCheckCatchesStrayAndMissingMessages) {
    auto message = [](const char* source, const char* translation, const char* extra = "") {
        return QByteArray("<message>") + extra + "<source>" + source + "</source><translation" +
               translation + "</translation></message>";
    };
    auto file = [](const QByteArray& context, const QByteArray& messages) {
        return "<?xml version=\"1.0\"?><!DOCTYPE TS><TS version=\"2.1\"><context><name>" + context +
               "</name>" + messages + "</context></TS>";
    };
    const QByteArray rows = message("%1 is ready.", ">ok") +
                            message("Corvane Quarn Client", ">ok") +
                            message("%1 is initializing...", ">ok");
    EXPECT_EQ(TranslationFileProblems(file("global", rows)), QStringList());

    EXPECT_EQ(TranslationFileProblems(file("global", rows + message("Not a row", ">x"))),
              QStringList{"not in the table: Not a row"});
    EXPECT_EQ(TranslationFileProblems(file("other", rows)).size(), 3);
    EXPECT_EQ(TranslationFileProblems(
                  file("global", rows + message("Cancel", ">x", "<comment>c</comment>"))),
              QStringList{"comment on: Cancel"});

    const QByteArray unfinished =
        message("%1 is ready.", " type=\"unfinished\">") + message("Corvane Quarn Client", ">ok");
    EXPECT_EQ(TranslationFileProblems(file("global", unfinished)),
              (QStringList{"row 54 not translated", "row 716 not translated"}));
}

}  // namespace
