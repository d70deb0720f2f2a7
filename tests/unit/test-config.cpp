#include <map>

#include "service/config.h"
#include "tests/support/test-support.h"

using Map = std::map<std::string, std::string>;

// Reads text with a reader that already holds a pair: a failed read drops it too.
static void ExpectRead(const std::string& text, int rc, Map values, bool keep_quotes = false) {
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir / "ui.pid", text));
    Config config;
    config.keep_quotes = keep_quotes;
    config.values["kept"] = "1";
    EXPECT_EQ(rc, config.read(dir / "ui.pid")) << text;
    if (rc == 0)
        values["kept"] = "1";
    EXPECT_EQ(values, config.values) << text;
}

TEST(Config, WhatAFileGives) {
    ExpectRead(" \tpid\t=\t1234 \r\npid = \"5\" # x\n", 0, {{"pid", "5"}});
    ExpectRead("\n \t\n# a=1\n  # b=2\nc#=3 x\nd#\nhash=1#x\ncomment='1' #x\n", 0,
               {{"hash", "1#x"}, {"comment", "1"}});
    ExpectRead("s=\"a b\"\nm='say \"hi\"'\ne=''\n09.AZ_az-=x\n", 0,
               {{"s", "a b"}, {"m", "say \"hi\""}, {"e", ""}, {"09.AZ_az-", "x"}});
    ExpectRead("a=\"1\"\nb='2'\nc=3\n", 0, {{"a", "\"1\""}, {"b", "'2'"}, {"c", "3"}}, true);
    // Lines are read in pieces of 8191 bytes: the rest of a longer line is one of its own.
    const std::string v(8189, 'v');
    ExpectRead("a=" + v + "b=2\n", 0, {{"a", v}, {"b", "2"}});
    ExpectRead("a=" + v + "vvv\n", -1, {});
    for (const char* line : {"pid=", "pid 1234", "pid #x", "pid=12 34", "pid=\"12", "pid='12\"",
                             "pid=\"1\t2\"", "pid=\"12\"x", "pid=1\x01", "pid", "p!d=1"})
        ExpectRead(std::string("c=3\n") + line + "\nd=4\n", -1, {});
    Config config;  // a file that cannot be opened leaves the values as they were
    config.values["kept"] = "1";
    EXPECT_TRUE(config.read("") == -1 && config.read("/none/ui.pid") == -1 && config.values.size());
}
