#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/config.h"
#include "tests/support/test-support.h"

namespace {

// Reads `text` as a file through a fresh Config; returns read's result and the pairs.
struct ReadResult {
    int rc;
    std::map<std::string, std::string> values;
};

ReadResult ReadText(const std::string& text, bool keep_quotes = false) {
    testsupport::TempDir dir;
    const std::string path = dir / "ui.pid";
    EXPECT_TRUE(testsupport::WriteFile(path, text));
    Config config;
    config.keep_quotes = keep_quotes;
    int rc = config.read(path);
    return {rc, config.values};
}

// Parses one line in place; returns parse's result and fills key and value.
int ParseLine(const std::string& text, std::string& key, std::string& value) {
    Config config;
    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    return config.parse(line.data(), key, value);
}

}  // namespace

TEST(Config, EveryFormOfPidLineGivesTheNumber) {
    const char* lines[] = {
        "pid=1234",         "pid = 1234",         " \tpid\t=\t1234 \r", "pid=\"1234\"",
        "pid='1234'",       "pid = \"1234\" # x", "pid=1234 # written", "pid='1234'#x",
        "pid = 1234\t#tab", "pid=\"1234\"  \t  ",
    };
    for (const char* line : lines) {
        ReadResult result = ReadText(std::string(line) + "\n");
        EXPECT_EQ(result.rc, 0) << line;
        EXPECT_EQ(result.values["pid"], "1234") << line;
        EXPECT_EQ(result.values.size(), 1u) << line;
    }
}

TEST(Config, SyntaxErrorEmptiesTheMapAndFailsTheRead) {
    const char* bad[] = {
        "pid=",          "pid =   ",  "pid 1234",     "pid #x",      "pid=12 34",
        "pid=\"12",      "pid='12\"", "pid=\"1\t2\"", "pid=\"12\"x", "pid=1\x01",
        "pid=\"1\x7f\"", "pid",       "pid\x01=1",
    };
    for (const char* line : bad) {
        testsupport::TempDir dir;
        ASSERT_TRUE(testsupport::WriteFile(dir / "good", "a=1\nb=2\n"));
        ASSERT_TRUE(testsupport::WriteFile(dir / "bad", std::string("c=3\n") + line + "\nd=4\n"));
        Config config;
        ASSERT_EQ(config.read(dir / "good"), 0);
        ASSERT_EQ(config.values.size(), 2u);
        // Pairs from the earlier read and from lines before the error go too.
        EXPECT_EQ(config.read(dir / "bad"), -1) << line;
        EXPECT_TRUE(config.values.empty()) << line;
    }
}

TEST(Config, BlankCommentAndKeyHashLinesAreSkipped) {
    ReadResult result = ReadText(
        "\n"
        "   \t \n"
        "# pid=1\n"
        "   # indented comment\n"
        "pid#=9 whatever\n"
        "name#\n"
        "pid=7\n");
    EXPECT_EQ(result.rc, 0);
    ASSERT_EQ(result.values.size(), 1u);
    EXPECT_EQ(result.values["pid"], "7");

    std::string key, value;
    EXPECT_EQ(ParseLine("", key, value), 1);
    EXPECT_EQ(ParseLine("  \n", key, value), 1);
    EXPECT_EQ(ParseLine("#", key, value), 1);
    EXPECT_EQ(ParseLine("key#rest = 1", key, value), 1);
    EXPECT_EQ(ParseLine("key #rest", key, value), 2);
}

TEST(Config, ValueRules) {
    ReadResult result = ReadText(
        "=nameless\n"
        "spaced=\"a b\"\n"
        "mixed='say \"hi\"'\n"
        "empty=''\n"
        "hash=12#x\n"
        "comment=12 #x\n"
        "quoted_comment=\"12\"#x\n"
        "utf8=gr\xc3\xbc\xc3\x9f\n"
        "dup=first\n"
        "dup=second\n"
        "a-b_c.9=ok\n");
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.values[""], "nameless");
    EXPECT_EQ(result.values["spaced"], "a b");
    EXPECT_EQ(result.values["mixed"], "say \"hi\"");
    EXPECT_EQ(result.values["empty"], "");
    EXPECT_EQ(result.values["hash"], "12#x");
    EXPECT_EQ(result.values["comment"], "12");
    EXPECT_EQ(result.values["quoted_comment"], "12");
    EXPECT_EQ(result.values["utf8"], "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(result.values["dup"], "second");
    EXPECT_EQ(result.values["a-b_c.9"], "ok");
}

TEST(Config, KeepQuotesKeepsTheQuoteCharacters) {
    ReadResult result = ReadText("a=\"1\"\nb='2'\nc=3\nd=''\n", true);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.values["a"], "\"1\"");
    EXPECT_EQ(result.values["b"], "'2'");
    EXPECT_EQ(result.values["c"], "3");
    EXPECT_EQ(result.values["d"], "''");
}

TEST(Config, ParseTerminatesKeyAndValueInPlace) {
    Config config;
    char line[] = "  pid = \"42\" # note\n";
    std::string key, value;
    ASSERT_EQ(config.parse(line, key, value), 0);
    EXPECT_EQ(key, "pid");
    EXPECT_EQ(value, "42");
    EXPECT_STREQ(line + 2, "pid");  // the key's end became a zero byte
    EXPECT_STREQ(line + 9, "42");   // and so did the closing quote
}

TEST(Config, LongLinesAreReadInPiecesOf8191Bytes) {
    // The first piece ends exactly after the 8191st byte; the rest is a line of its own.
    const std::string first = "a=" + std::string(8189, 'v');
    ReadResult result = ReadText(first + "b=2\n");
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.values["a"], std::string(8189, 'v'));
    EXPECT_EQ(result.values["b"], "2");

    // A piece that cuts a word leaves a remainder that is not a pair: a syntax error.
    result = ReadText("a=" + std::string(9000, 'v') + "\n");
    EXPECT_EQ(result.rc, -1);
    EXPECT_TRUE(result.values.empty());
}

TEST(Config, UnreadablePathsFail) {
    Config config;
    config.values["kept"] = "1";
    EXPECT_EQ(config.read(""), -1);
    EXPECT_EQ(config.read("/nonexistent/ui.pid"), -1);
    EXPECT_EQ(config.values["kept"], "1");
}

TEST(Config, SubscriptInsertsAnEmptyValue) {
    Config config;
    EXPECT_TRUE(config["missing"].empty());
    EXPECT_EQ(config.values.count("missing"), 1u);
    config["pid"] = "5";
    EXPECT_EQ(config.values["pid"], "5");
}

TEST(Config, CharacterClasses) {
    int keys = 0, values = 0, spaces = 0;
    for (int c = 0; c < 256; ++c) {
        keys += Config::is_key_char(static_cast<unsigned char>(c));
        values += Config::is_value_char(static_cast<unsigned char>(c));
        spaces += Config::is_space(static_cast<unsigned char>(c));
    }
    EXPECT_EQ(keys, 10 + 26 + 26 + 3);
    EXPECT_EQ(values, 256 - 32 - 1);
    EXPECT_EQ(spaces, 6);
    EXPECT_FALSE(Config::is_value_char('\t'));
    EXPECT_FALSE(Config::is_value_char(127));
    EXPECT_TRUE(Config::is_value_char(255));
    EXPECT_TRUE(Config::is_space('\v'));
    EXPECT_FALSE(Config::is_key_char('#'));
}
