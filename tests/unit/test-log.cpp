#include <gtest/gtest.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "log/log.h"
#include "tests/support/test-support.h"

// Test double of the C library's syslog entry: this definition wins over libc's, so the
// syslog sink can be checked without a running syslog daemon.
namespace {
std::vector<std::pair<int, std::string>> syslog_calls;
}

extern "C" void vsyslog(int priority, const char* format, va_list args) {
    char text[4096];
    vsnprintf(text, sizeof(text), format, args);
    syslog_calls.emplace_back(priority, text);
}
// A build with fortified C library calls enters here instead.
extern "C" void __vsyslog_chk(int priority, int, const char* format, va_list args) {
    vsyslog(priority, format, args);
}

namespace {

constexpr long kRotateSize = 5242880;
constexpr size_t kStampSize = 20;  // "YYYY-MM-DDTHH:MM:SS "

bool logger_touched = false;

// Collects what is written to standard error until Finish().
class CaptureStderr {
public:
    CaptureStderr() : saved_(dup(STDERR_FILENO)), file_(tmpfile()) {
        fflush(nullptr);
        dup2(fileno(file_), STDERR_FILENO);
    }
    std::string Finish() {
        fflush(nullptr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        std::string text(static_cast<size_t>(ftell(file_)), '\0');
        rewind(file_);
        text.resize(fread(&text[0], 1, text.size(), file_));
        fclose(file_);
        return text;
    }

private:
    int saved_;
    FILE* file_;
};

// Splits into lines, checking that each starts with a local time stamp close to now, and
// returns them without the stamp.
std::vector<std::string> Unstamped(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        struct tm parts = {};
        const char* end = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S ", &parts);
        parts.tm_isdst = -1;
        EXPECT_TRUE(end == line.c_str() + kStampSize &&
                    std::labs(static_cast<long>(mktime(&parts) - time(nullptr))) <= 5)
            << line;
        lines.push_back(line.substr(std::min(kStampSize, line.size())) + (in.eof() ? "" : "\n"));
    }
    return lines;
}

std::string Prefix(const char* tag, int line) {
    char text[128];
    snprintf(text, sizeof(text), "(%5d:%5d) [%s] test-log.cpp(%d): ", static_cast<int>(getpid()),
             static_cast<int>(pthread_self() % 100000), tag, line);
    return text;
}

std::string Tail(const std::string& path, size_t count) {
    std::string text = testsupport::ReadFile(path);
    return text.substr(text.size() > count ? text.size() - count : 0);
}

long SizeOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

// Gives the live file a size without writing 5 MiB: the logger counts from the size at open.
void Presize(const std::string& path, long size) {
    fclose(fopen(path.c_str(), "a"));
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

int InitFile(const std::string& path, const std::string& levels = "", int rotate_count = 50,
             Logger::SafetyScope scope = Logger::SCOPE_THREAD) {
    return Logger::Initialize(Logger::TYPE_FILE, path, levels, rotate_count, scope);
}

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { logger_touched = true; }
    void TearDown() override { Logger::Destroy(); }
    testsupport::TempDir dir;
    const std::string path = dir / "launcher.log";
};

}  // namespace

// Must stay the first test: it checks the state the process starts in.
TEST(LoggerStartUp, ErrorsAndWarningsGoToStandardErrorBeforeInitialize) {
    if (logger_touched)
        GTEST_SKIP() << "the logger was configured by an earlier test";
    EXPECT_EQ(Logger::GetCompLevel("startup_comp"), Logger::WARNING);
    CaptureStderr err;
    LOG_AT(ERROR, "startup_comp", 11, "early %d\n", 1);
    LOG_AT(WARNING, "startup_comp", 12, "early %d\n", 2);
    LOG_AT(NOTE, "startup_comp", 13, "early %d\n", 3);
    EXPECT_EQ(Unstamped(err.Finish()),
              (std::vector<std::string>{Prefix("ERROR", 11) + "early 1\n",
                                        Prefix("WARNING", 12) + "early 2\n"}));
}

TEST_F(LoggerTest, FileLinesCarryStampAndPrefix) {
    ASSERT_EQ(InitFile(path), 0);
    LOG_AT(ERROR, "prefix_comp", 1234, "value %s\n", "x");
    const int here = __LINE__ + 1;
    LOG_HERE(WARNING, "prefix_comp", "%d%%\n", 50);
    EXPECT_EQ(Unstamped(testsupport::ReadFile(path)),
              (std::vector<std::string>{Prefix("ERROR", 1234) + "value x\n",
                                        Prefix("WARNING", here) + "50%\n"}));
}

TEST_F(LoggerTest, ComponentLevelsComeFromTheLevelFile) {
    const std::string levels = dir / "launcher.debug";
    ASSERT_TRUE(testsupport::WriteFile(levels,
                                       "# levels for this run\n"
                                       "lvl_extractor=7\n"
                                       "lvl_service = \"5\"\n"
                                       "lvl_launcher=abc\n"
                                       "lvl_file=3 # errors only\n"
                                       "lvl_tail=6x\n"
                                       "default_component=7\n"));
    ASSERT_EQ(InitFile(path, levels), 0);
    EXPECT_EQ(Logger::GetCompLevel("lvl_launcher"), 0);
    EXPECT_EQ(Logger::GetCompLevel("lvl_tail"), 6);
    // "default_component" is just another name: unknown components stay at WARNING.
    EXPECT_EQ(Logger::GetCompLevel("default_component"), 7);
    EXPECT_EQ(Logger::GetCompLevel("lvl_unknown"), Logger::WARNING);

    struct Case {
        Logger::Level level;
        const char* component;
        bool written;
    } cases[] = {
        {Logger::DEBUG, "lvl_extractor", true}, {Logger::NOTE, "lvl_service", true},
        {Logger::INFO, "lvl_service", false},   {Logger::ERROR, "lvl_launcher", false},
        {Logger::ERROR, "lvl_file", true},      {Logger::WARNING, "lvl_file", false},
        {Logger::WARNING, "lvl_unknown", true}, {Logger::NOTE, "lvl_unknown", false},
    };
    std::vector<std::string> expected;
    for (const Case& c : cases) {
        EXPECT_EQ(Logger::IsNeedToLog(c.level, c.component), c.written) << c.component;
        Logger::LogMsg(c.level, c.component, "%s %d\n", c.component, c.level);
        if (c.written)
            expected.push_back(std::string(c.component) + " " + std::to_string(c.level) + "\n");
    }
    EXPECT_EQ(Unstamped(testsupport::ReadFile(path)), expected);
}

TEST_F(LoggerTest, RotatesOnlyPastFiveMebibytes) {
    // A line counts its time stamp too: 20 characters plus the message.
    for (int message : {80, 81}) {
        testsupport::TempDir here;
        const std::string live = here / "launcher.log";
        Presize(live, kRotateSize - 100);
        ASSERT_EQ(InitFile(live), 0);
        Logger::LogMsg(Logger::ERROR, "rot_comp", "%s", std::string(message, 'm').c_str());
        Logger::Destroy();
        if (message == 80) {
            EXPECT_EQ(SizeOf(live + "_0"), -1);
            EXPECT_EQ(SizeOf(live), kRotateSize);
        } else {
            // The line that crosses the limit is the last of the rotated file.
            EXPECT_EQ(SizeOf(live + "_0"), kRotateSize + 1);
            EXPECT_EQ(Tail(live + "_0", message), std::string(message, 'm'));
            EXPECT_EQ(SizeOf(live), 0);
        }
    }
}

TEST_F(LoggerTest, RotationKeepsOneFileFewerThanTheCount) {
    struct Case {
        int count, rotations, kept;
        Logger::SafetyScope scope;
    } cases[] = {
        {50, 60, 49, Logger::SCOPE_THREAD},
        {3, 6, 2, Logger::SCOPE_PROCESS},
        {2, 4, 1, Logger::SCOPE_NONE},
        {1, 3, 1, Logger::SCOPE_THREAD},
    };
    for (const Case& c : cases) {
        testsupport::TempDir here;
        const std::string live = here / "launcher.log";
        for (int gen = 0; gen < c.rotations; ++gen) {
            Presize(live, kRotateSize);
            ASSERT_EQ(InitFile(live, "", c.count, c.scope), 0);
            Logger::LogMsg(Logger::ERROR, "rot_comp", "generation %03d\n", gen);
            Logger::Destroy();
            ASSERT_EQ(SizeOf(live), 0) << "count " << c.count << " generation " << gen;
        }
        // path_0 is the newest; the slot numbered count-1 never survives a rotation.
        for (int i = 0; i <= c.count + 1; ++i) {
            char expected[32] = "";
            if (i < c.kept)
                snprintf(expected, sizeof(expected), "generation %03d\n", c.rotations - 1 - i);
            EXPECT_EQ(Tail(live + "_" + std::to_string(i), 15), expected)
                << "count " << c.count << " file " << i;
        }
    }
}

TEST_F(LoggerTest, SyslogGetsEveryLineAtErrPriority) {
    const std::string levels = dir / "launcher.debug";
    ASSERT_TRUE(testsupport::WriteFile(levels, "sys_comp=7\n"));
    ASSERT_EQ(Logger::Initialize(Logger::TYPE_SYSLOG, "", levels, 50, Logger::SCOPE_THREAD), 0);
    syslog_calls.clear();
    LOG_AT(DEBUG, "sys_comp", 99, "debug line %d\n", 7);
    LOG_AT(DEBUG, "sys_other", 100, "dropped\n");
    LOG_AT(WARNING, "sys_other", 101, "warning line\n");
    EXPECT_EQ(syslog_calls, (std::vector<std::pair<int, std::string>>{
                                {LOG_ERR, Prefix("DEBUG", 99) + "debug line 7\n"},
                                {LOG_ERR, Prefix("WARNING", 101) + "warning line\n"}}));
}

TEST_F(LoggerTest, NothingIsWrittenAfterDestroy) {
    ASSERT_EQ(InitFile(path), 0);
    Logger::LogMsg(Logger::ERROR, "destroy_comp", "before\n");
    Logger::Destroy();
    CaptureStderr err;
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "destroy_comp"));
    Logger::LogMsg(Logger::ERROR, "destroy_comp", "after\n");
    EXPECT_EQ(err.Finish(), "");
    EXPECT_EQ(Unstamped(testsupport::ReadFile(path)), std::vector<std::string>{"before\n"});
}

TEST_F(LoggerTest, MessageStreamsAndErrno) {
    ASSERT_EQ(InitFile(path), 0);
    const auto flags = static_cast<Logger::ConfigFlag>(Logger::FLAG_NEWLINE | Logger::FLAG_ERRNO);
    std::stringstream first;
    first << "open " << 5 << " failed";
    errno = ENOENT;
    Logger::LogMsg3(Logger::ERROR, "errno_comp", first, flags);
    EXPECT_EQ(errno, ENOENT);  // logging leaves the caller's errno alone
    std::stringstream second("no error");
    errno = 0;
    Logger::LogMsg3(Logger::ERROR, "errno_comp", second, flags);
    std::stringstream third("100% literal");
    errno = EACCES;
    Logger::LogMsg3(Logger::ERROR, "errno_comp", third, Logger::FLAG_NEWLINE);
    std::stringstream fourth("unterminated");
    Logger::LogMsg3(Logger::ERROR, "errno_comp", fourth, Logger::FLAG_ERRNO);
    EXPECT_EQ(Unstamped(testsupport::ReadFile(path)),
              (std::vector<std::string>{
                  std::string("open 5 failed, err=2:") + strerror(ENOENT) + "\n", "no error\n",
                  "100% literal\n", std::string("unterminated, err=13:") + strerror(EACCES)}));
}
