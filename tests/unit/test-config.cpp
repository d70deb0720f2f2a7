#include <gtest/gtest.h>

#include <map>
#include <string>

#include "service/config.h"
#include "tests/support/test-support.h"

namespace {

struct ReadResult {
    int rc;
    std::map<std::string, std::string> values;
};

ReadResult ReadText(const std::string& text, bool keep_quotes = false) {
    testsupport::TempDir dir;
    EXPECT_TRUE(testsupport::WriteFile(dir / "ui.pid", text));
    Config config;
    config.keep_quotes = keep_quotes;
    int rc = config.read(dir / "ui.pid");
    return {rc, config.values};
}

}  // namespace

TEST(Config, EveryFormOfPidLineGivesTheNumber) {
    for (const char* line : {"pid=1234", " \tpid\t=\t1234 \r", "pid=\"1234\"", "pid='1234'#x",
                             "pid = \"1234\" # x", "pid = 1234\t#tab"}) {
        ReadResult result = ReadText(std::string(line) + "\n");
        EXPECT_EQ(result.rc, 0) << line;
        EXPECT_EQ(result.values, (std::map<std::string, std::string>{{"pid", "1234"}})) << line;
    }
}

TEST(Config, SyntaxErrorEmptiesTheMapAndFailsTheRead) {
    for (const char* line : {"pid=", "pid 1234", "pid #x", "pid=12 34", "pid=\"12", "pid='12\"",
                             "pid=\"1\t2\"", "pid=\"12\"x", "pid=1\x01", "pid"}) {
        testsupport::TempDir dir;
        ASSERT_TRUE(testsupport::WriteFile(dir / "good", "a=1\n"));
        ASSERT_TRUE(testsupport::WriteFile(dir / "bad", std::string("c=3\n") + line + "\nd=4\n"));
        Config config;
        ASSERT_EQ(config.read(dir / "good"), 0);
        // Pairs from the earlier read and from lines before the error go too.
        EXPECT_EQ(config.read(dir / "bad"), -1) << line;
        EXPECT_TRUE(config.values.empty()) << line;
    }
}

TEST(Config, CommentsKeyHashAndValueRules) {
    ReadResult result = ReadText(
        "\n   \t \n# pid=1\n   # indented\n"
        "pid#=9 whatever\nname#\n"
        "spaced=\"a b\"\nmixed='say \"hi\"'\nempty=''\n"
        "hash=12#x\ncomment=12 #x\ndup=first\ndup=second\n");
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.values, (std::map<std::string, std::string>{{"spaced", "a b"},
                                                                 {"mixed", "say \"hi\""},
                                                                 {"empty", ""},
                                                                 {"hash", "12#x"},
                                                                 {"comment", "12"},
                                                                 {"dup", "second"}}));

    result = ReadText("a=\"1\"\nb='2'\nc=3\n", true);
    EXPECT_EQ(result.values,
              (std::map<std::string, std::string>{{"a", "\"1\""}, {"b", "'2'"}, {"c", "3"}}));
}

TEST(Config, LongLinesAreReadInPiecesOf8191Bytes) {
    // The first piece ends exactly after the 8191st byte; the rest is a line of its own.
    ReadResult result = ReadText("a=" + std::string(8189, 'v') + "b=2\n");
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.values["a"], std::string(8189, 'v'));
    EXPECT_EQ(result.values["b"], "2");

    // A piece that cuts a word leaves a remainder that is not a pair.
    result = ReadText("a=" + std::string(9000, 'v') + "\n");
    EXPECT_EQ(result.rc, -1);
    EXPECT_TRUE(result.values.empty());
}

TEST(Config, UnreadablePathsFailAndKeepTheMap) {
    Config config;
    config.values["kept"] = "1";
    EXPECT_EQ(config.read(""), -1);
    EXPECT_EQ(config.read("/nonexistent/ui.pid"), -1);
    EXPECT_EQ(config.values["kept"], "1");
}
