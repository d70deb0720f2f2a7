#include <gtest/gtest.h>

#include <set>
#include <string>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QResource>
#include <QStringList>
#include <QTranslator>
#include <QXmlStreamReader>

#include "launcher/str-table.h"

namespace {

const int kReadyRow = 54, kProductRow = 531, kInitializingRow = 716;
const QStringList kStored = {"chs", "cht", "jpn", "krn"};
const QStringList kAll =
    kStored + QStringList{"csy", "dan", "enu", "fre", "ger", "hun", "ita", "nld", "nor",
                          "plk", "ptb", "ptg", "rus", "spn", "sve", "tha", "trk"};

class StrTableTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static int argc = 1;
        static char name[] = "test-str-table";
        static char* argv[] = {name, nullptr};
        static QCoreApplication app(argc, argv);
        StrTable::InitStrTable();
    }
    const QString english_ = StrTable::stab[kInitializingRow];
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

TEST_F(StrTableTest, KeysAreUniqueWithoutRegardToCaseAndLookupIgnoresIt) {
    std::set<QString> seen;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id) {
        const QString key = QString::fromLatin1(StrTable::ktab[id]);
        ASSERT_FALSE(key.isEmpty()) << id;
        EXPECT_STRNE(StrTable::stab[id], "") << StrTable::ktab[id];
        EXPECT_TRUE(seen.insert(key.toLower()).second) << StrTable::ktab[id];
        EXPECT_EQ(StrTable::LookupStrID(key.toUpper()), id) << StrTable::ktab[id];
        EXPECT_EQ(StrTable::LookupStrID(key.toLower()), id) << StrTable::ktab[id];
    }
    for (const char* absent : {"", "app_name_quarn_clien", "app_name_quarn_client ", "no_such"})
        EXPECT_EQ(StrTable::LookupStrID(absent), -1) << absent;
}

TEST_F(StrTableTest, LauncherRowsCarryTheirTexts) {
    EXPECT_STREQ(StrTable::ktab[kReadyRow], "desc_tarv_env_preparation_done_quarn");
    EXPECT_STREQ(StrTable::stab[kReadyRow], "%1 is ready.");
    EXPECT_STREQ(StrTable::ktab[kProductRow], "app_name_quarn_client");
    EXPECT_STREQ(StrTable::stab[kProductRow], "Corvane Quarn Client");
    EXPECT_STREQ(StrTable::ktab[kInitializingRow], "desc_tarv_env_preparing_quarn");
    EXPECT_STREQ(StrTable::stab[kInitializingRow], "%1 is initializing...");
}

TEST_F(StrTableTest, EscapesBecomeBreaksAndTabs) {
    const int restart = StrTable::LookupStrID("msg_language_restart");
    ASSERT_TRUE(QString(StrTable::stab[restart]).contains("\\n"));
    EXPECT_TRUE(StrTable::LoadStr(restart).contains('\n'));
    FixedTranslator translator("Zeile\\neins\\tund\\n\\nzwei \\N \\T \\");
    ASSERT_TRUE(QCoreApplication::installTranslator(&translator));
    EXPECT_EQ(StrTable::LoadStr(kInitializingRow), "Zeile\neins\tund\n\nzwei \\N \\T \\");
    QCoreApplication::removeTranslator(&translator);
}

TEST_F(StrTableTest, EveryLanguageLoadsFromTheResourceAndTranslatesTheLauncherRows) {
    QStringList files;
    for (const QString& code : kAll) {
        const QString file = ":/" + code + ".qm";
        files << code + ".qm";
        EXPECT_EQ(QResource(file).compressionAlgorithm(),
                  kStored.contains(code) ? QResource::NoCompression : QResource::ZlibCompression)
            << code.toStdString();
        QTranslator translator;
        ASSERT_TRUE(translator.load(file)) << code.toStdString();
        ASSERT_TRUE(QCoreApplication::installTranslator(&translator));
        const QString initializing = StrTable::LoadStr(kInitializingRow);
        EXPECT_EQ(initializing.count("%1"), 1) << code.toStdString();
        EXPECT_EQ(initializing == english_, code == "enu") << code.toStdString();
        EXPECT_FALSE(translator.translate("global", StrTable::stab[kInitializingRow]).isEmpty());
        EXPECT_EQ(StrTable::LoadStr(kReadyRow).count("%1"), 1) << code.toStdString();
        EXPECT_TRUE(StrTable::LoadStr(kProductRow).contains("Corvane Quarn")) << code.toStdString();
        QCoreApplication::removeTranslator(&translator);
    }
    files.sort();
    EXPECT_EQ(QDir(":/").entryList({"*.qm"}, QDir::Files, QDir::Name), files);
    QTranslator unknown;
    EXPECT_FALSE(unknown.load(":/xyz.qm"));
    EXPECT_EQ(StrTable::LoadStr(kInitializingRow), english_);
}

// What lupdate would complain about in a translation file: a message outside the "global"
// context, with a comment, or whose source is no row's English text; and a launcher row left
// out or unfinished. Returns one line per problem.
QStringList TranslationFileProblems(const QByteArray& ts) {
    std::set<QString> sources, finished;
    for (int id = 0; id < StrTable::NUM_STRING_IDS; ++id)
        sources.insert(QString::fromUtf8(StrTable::stab[id]));
    QStringList problems;
    QXmlStreamReader xml(ts);
    QString context, source, comment, translation, type;
    while (!xml.atEnd()) {
        xml.readNext();
        const QStringRef name = xml.name();
        if (xml.isStartElement() && name == QLatin1String("message")) {
            source = comment = translation = type = QString();
        } else if (xml.isStartElement() && name == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.isStartElement() && name == QLatin1String("source")) {
            source = xml.readElementText();
        } else if (xml.isStartElement() && name == QLatin1String("comment")) {
            comment = xml.readElementText();
        } else if (xml.isStartElement() && name == QLatin1String("translation")) {
            type = xml.attributes().value("type").toString();
            translation = xml.readElementText();
        } else if (xml.isEndElement() && name == QLatin1String("message")) {
            if (context != "global" || !comment.isEmpty())
                problems << "context or comment: " + source;
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
    for (const QString& code : kAll) {
        QFile file(folder + "/" + code + ".ts");
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << code.toStdString();
        EXPECT_EQ(TranslationFileProblems(file.readAll()), QStringList()) << code.toStdString();
    }
    // The check itself catches a stray source text and a missing or unfinished launcher row.
    auto message = [](const char* source, const char* translation) {
        return QByteArray("<message><source>") + source + "</source><translation" + translation +
               "</translation></message>";
    };
    const QByteArray ts = "<TS version=\"2.1\"><context><name>global</name>" +
                          message("%1 is ready.", " type=\"unfinished\">") +
                          message("Corvane Quarn Client", ">ok") + message("Not a row", ">x") +
                          "</context></TS>";
    EXPECT_EQ(TranslationFileProblems(ts),
              (QStringList{"not in the table: Not a row", "row 54 not translated",
                           "row 716 not translated"}));
}

}  // namespace
