#include <gtest/gtest.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
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

namespace {

constexpr long kRotateSize = 5242880;
constexpr size_t kStampSize = 20;  // "YYYY-MM-DDTHH:MM:SS "

bool logger_touched = false;

// Redirects a standard descriptor into a temporary file until Finish().
class CaptureFd {
public:
    explicit CaptureFd(int fd) : fd_(fd) {
        fflush(nullptr);
        saved_ = dup(fd);
        file_ = tmpfile();
        dup2(fileno(file_), fd);
    }
    ~CaptureFd() { Finish(); }
    std::string Finish() {
        if (!file_)
            return text_;
        fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        rewind(file_);
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), file_)) > 0)
            text_.append(buffer, n);
        fclose(file_);
        file_ = nullptr;
        return text_;
    }

private:
    int fd_;
    int saved_ = -1;
    FILE* file_ = nullptr;
    std::string text_;
};

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size() - 1;
        lines.push_back(text.substr(start, end - start + 1));
        start = end + 1;
    }
    return lines;
}

// The local time stamp every file and stream line starts with, close to now.
bool HasFreshStamp(const std::string& line) {
    if (line.size() < kStampSize || line[kStampSize - 1] != ' ')
        return false;
    struct tm parts = {};
    const char* end = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (end != line.c_str() + kStampSize - 1)
        return false;
    parts.tm_isdst = -1;
    return std::labs(static_cast<long>(mktime(&parts) - time(nullptr))) <= 5;
}

// The prefix every module's helper writes, for this process and thread.
std::string Prefix(const char* tag, int line) {
    char text[128];
    snprintf(text, sizeof(text), "(%5d:%5d) [%s] test-log.cpp(%d): ", static_cast<int>(getpid()),
             static_cast<int>(pthread_self() % 100000), tag, line);
    return text;
}

std::string Tail(const std::string& path, size_t count) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = in.tellg();
    if (size < 0)
        return "";
    const std::streamoff from = size > static_cast<std::streamoff>(count) ? size - count : 0;
    in.seekg(from);
    std::string text(static_cast<size_t>(size - from), '\0');
    in.read(&text[0], static_cast<std::streamsize>(text.size()));
    return text;
}

bool Exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

long SizeOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

// Gives the live file a size without writing 5 MiB: the logger counts from the size at open.
void Presize(const std::string& path, long size) {
    FILE* fp = fopen(path.c_str(), "a");
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

int InitFile(const std::string& path, const std::string& levels = "", int rotate_count = 50,
             Logger::SafetyScope scope = Logger::SCOPE_THREAD) {
    return Logger::Initialize(Logger::TYPE_FILE, path, levels, rotate_count, scope);
}

void CallC(int level, const char* component, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogMSG_c(level, component, format, args);
    va_end(args);
}

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { logger_touched = true; }
    void TearDown() override { Logger::Destroy(); }
    testsupport::TempDir dir;
};

}  // namespace

// Must stay the first test: it checks the state the process starts in.
TEST(LoggerStartUp, ErrorsAndWarningsGoToStandardErrorBeforeInitialize) {
    if (logger_touched)
        GTEST_SKIP() << "the logger was configured by an earlier test";
    EXPECT_EQ(Logger::GetCompLevel("startup_comp"), Logger::WARNING);
    EXPECT_TRUE(Logger::IsNeedToLog(Logger::WARNING, "startup_comp"));
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::NOTE, "startup_comp"));

    CaptureFd err(STDERR_FILENO);
    CaptureFd out(STDOUT_FILENO);
    LOG_AT(ERROR, "startup_comp", 11, "early %d\n", 1);
    LOG_AT(WARNING, "startup_comp", 12, "early %d\n", 2);
    LOG_AT(NOTE, "startup_comp", 13, "early %d\n", 3);
    Logger::LogMsg(Logger::INFO, "startup_comp", "dropped\n");
    std::string text = err.Finish();
    EXPECT_EQ(out.Finish(), "");

    std::vector<std::string> lines = Lines(text);
    ASSERT_EQ(lines.size(), 2u) << text;
    EXPECT_TRUE(HasFreshStamp(lines[0])) << lines[0];
    EXPECT_EQ(lines[0].substr(kStampSize), Prefix("ERROR", 11) + "early 1\n");
    EXPECT_EQ(lines[1].substr(kStampSize), Prefix("WARNING", 12) + "early 2\n");
}

TEST_F(LoggerTest, FileLinesCarryStampAndPrefix) {
    const std::string path = dir / "launcher.log";
    ASSERT_EQ(InitFile(path), 0);
    LOG_AT(ERROR, "prefix_comp", 1234, "value %s\n", "x");
    LOG_AT(WARNING, "prefix_comp", 7, "no arguments\n");
    const int here = __LINE__ + 1;
    LOG_HERE(ERROR, "prefix_comp", "%d%%\n", 50);

    std::vector<std::string> lines = Lines(testsupport::ReadFile(path));
    ASSERT_EQ(lines.size(), 3u);
    for (const std::string& line : lines)
        EXPECT_TRUE(HasFreshStamp(line)) << line;
    EXPECT_EQ(lines[0].substr(kStampSize), Prefix("ERROR", 1234) + "value x\n");
    EXPECT_EQ(lines[1].substr(kStampSize), Prefix("WARNING", 7) + "no arguments\n");
    EXPECT_EQ(lines[2].substr(kStampSize), Prefix("ERROR", here) + "50%\n");
}

TEST_F(LoggerTest, ComponentLevelsComeFromTheLevelFile) {
    const std::string levels = dir / "launcher.debug";
    ASSERT_TRUE(testsupport::WriteFile(levels,
                                       "# levels for this run\n"
                                       "lvl_extractor=7\n"
                                       "lvl_service = \"5\"\n"
                                       "lvl_launcher=abc\n"
                                       "lvl_file=3 # errors only\n"
                                       "lvl_spaced=' 6'\n"
                                       "lvl_tail=6x\n"
                                       "lvl_negative=-2\n"
                                       "default_component=7\n"));
    const std::string path = dir / "launcher.log";
    ASSERT_EQ(InitFile(path, levels), 0);

    EXPECT_EQ(Logger::GetCompLevel("lvl_extractor"), 7);
    EXPECT_EQ(Logger::GetCompLevel("lvl_service"), 5);
    EXPECT_EQ(Logger::GetCompLevel("lvl_launcher"), 0);
    EXPECT_EQ(Logger::GetCompLevel("lvl_file"), 3);
    EXPECT_EQ(Logger::GetCompLevel("lvl_spaced"), 6);
    EXPECT_EQ(Logger::GetCompLevel("lvl_tail"), 6);
    EXPECT_EQ(Logger::GetCompLevel("lvl_negative"), -2);
    EXPECT_EQ(Logger::GetCompLevel("default_component"), 7);
    // "default_component" is just another name: it does not set the level of unknown ones.
    EXPECT_EQ(Logger::GetCompLevel("lvl_unknown"), Logger::WARNING);

    struct Case {
        Logger::Level level;
        const char* component;
        bool written;
    } cases[] = {
        {Logger::DEBUG, "lvl_extractor", true}, {Logger::NOTE, "lvl_service", true},
        {Logger::INFO, "lvl_service", false},   {Logger::ERROR, "lvl_launcher", false},
        {Logger::ERROR, "lvl_file", true},      {Logger::WARNING, "lvl_file", false},
        {Logger::ERROR, "lvl_negative", false}, {Logger::DEBUG, "default_component", true},
        {Logger::WARNING, "lvl_unknown", true}, {Logger::NOTE, "lvl_unknown", false},
        {Logger::DEBUG, "lvl_unknown", false},
    };
    std::string expected;
    for (const Case& c : cases) {
        EXPECT_EQ(Logger::IsNeedToLog(c.level, c.component), c.written)
            << c.component << " " << c.level;
        Logger::LogMsg(c.level, c.component, "%s %d\n", c.component, c.level);
        if (c.written)
            expected += std::string(c.component) + " " + std::to_string(c.level) + "\n";
    }
    std::string written;
    for (const std::string& line : Lines(testsupport::ReadFile(path))) {
        written += line.substr(kStampSize);
    }
    EXPECT_EQ(written, expected);

    // A later configuration merges into the table; a malformed level file adds nothing.
    ASSERT_TRUE(testsupport::WriteFile(levels, "lvl_extractor=4\nlvl_new=6\n"));
    ASSERT_EQ(InitFile(path, levels), 0);
    EXPECT_EQ(Logger::GetCompLevel("lvl_extractor"), 4);
    EXPECT_EQ(Logger::GetCompLevel("lvl_new"), 6);
    EXPECT_EQ(Logger::GetCompLevel("lvl_service"), 5);
    ASSERT_TRUE(testsupport::WriteFile(levels, "lvl_broken=7\nnot a pair\n"));
    ASSERT_EQ(InitFile(path, levels), 0);
    EXPECT_EQ(Logger::GetCompLevel("lvl_broken"), Logger::WARNING);
    ASSERT_EQ(InitFile(path, dir / "missing.debug"), 0);
    EXPECT_EQ(Logger::GetCompLevel("lvl_new"), 6);
}

TEST_F(LoggerTest, RotatesOnlyPastFiveMebibytes) {
    // A line counts its time stamp too: 20 characters plus the message.
    for (int message : {80, 81}) {
        testsupport::TempDir here;
        const std::string path = here / "launcher.log";
        Presize(path, kRotateSize - 100);
        ASSERT_EQ(InitFile(path), 0);
        Logger::LogMsg(Logger::ERROR, "rot_comp", "%s", std::string(message, 'm').c_str());
        Logger::Destroy();
        if (message == 80) {
            EXPECT_FALSE(Exists(path + "_0"));
            EXPECT_EQ(SizeOf(path), kRotateSize);
        } else {
            // The line that crosses the limit is the last of the rotated file.
            EXPECT_EQ(SizeOf(path + "_0"), kRotateSize + 1);
            EXPECT_EQ(Tail(path + "_0", message), std::string(message, 'm'));
            EXPECT_EQ(SizeOf(path), 0);
        }
    }
}

TEST_F(LoggerTest, RotationKeepsOneFileFewerThanTheCount) {
    struct Case {
        int count;
        int rotations;
        int kept;
        Logger::SafetyScope scope;
    } cases[] = {
        {50, 60, 49, Logger::SCOPE_THREAD},
        {3, 6, 2, Logger::SCOPE_PROCESS},
        {2, 4, 1, Logger::SCOPE_NONE},
        {1, 3, 1, Logger::SCOPE_THREAD},
    };
    for (const Case& c : cases) {
        testsupport::TempDir here;
        const std::string path = here / "launcher.log";
        for (int gen = 0; gen < c.rotations; ++gen) {
            Presize(path, kRotateSize);
            ASSERT_EQ(InitFile(path, "", c.count, c.scope), 0);
            Logger::LogMsg(Logger::ERROR, "rot_comp", "generation %03d\n", gen);
            Logger::Destroy();
            ASSERT_EQ(SizeOf(path), 0) << "count " << c.count << " generation " << gen;
        }
        // path_0 is the newest; the slot numbered count-1 never survives a rotation.
        for (int i = 0; i < c.kept; ++i) {
            char expected[32];
            snprintf(expected, sizeof(expected), "generation %03d\n", c.rotations - 1 - i);
            EXPECT_EQ(Tail(path + "_" + std::to_string(i), 15), expected)
                << "count " << c.count << " file " << i;
        }
        for (int i = c.kept; i <= c.count + 1; ++i) {
            EXPECT_FALSE(Exists(path + "_" + std::to_string(i)))
                << "count " << c.count << " file " << i;
        }
    }
}

TEST_F(LoggerTest, FailedRotationStopsFileLogging) {
    const std::string path = dir / "launcher.log";
    // A non-empty folder in the rotated file's place: the live file cannot be moved there.
    ASSERT_TRUE(testsupport::WriteFile(path + "_0/keep", "x"));
    Presize(path, kRotateSize);
    ASSERT_EQ(InitFile(path, "", 1), 0);
    Logger::LogMsg(Logger::ERROR, "rot_comp", "crosses the limit\n");
    Logger::LogMsg(Logger::ERROR, "rot_comp", "dropped\n");
    EXPECT_TRUE(Logger::IsNeedToLog(Logger::ERROR, "rot_comp"));
    EXPECT_EQ(Tail(path, 18), "crosses the limit\n");
    EXPECT_EQ(SizeOf(path), kRotateSize + 38);
}

TEST_F(LoggerTest, StreamSinksWriteStampedLines) {
    CaptureFd out(STDOUT_FILENO);
    ASSERT_EQ(Logger::Initialize(Logger::TYPE_STDOUT, "", "", 50, Logger::SCOPE_THREAD), 0);
    Logger::LogMsg(Logger::ERROR, "sink_comp", "to standard output\n");
    std::string text = out.Finish();
    EXPECT_TRUE(HasFreshStamp(text)) << text;
    EXPECT_EQ(text.substr(kStampSize), "to standard output\n");

    CaptureFd err(STDERR_FILENO);
    ASSERT_EQ(Logger::Initialize(Logger::TYPE_STDERR, "", "", 50, Logger::SCOPE_THREAD), 0);
    Logger::LogMsg(Logger::WARNING, "sink_comp", "to standard error %s\n", "too");
    text = err.Finish();
    EXPECT_TRUE(HasFreshStamp(text)) << text;
    EXPECT_EQ(text.substr(kStampSize), "to standard error too\n");
}

TEST_F(LoggerTest, SyslogGetsEveryLineAtErrPriority) {
    const std::string levels = dir / "launcher.debug";
    ASSERT_TRUE(testsupport::WriteFile(levels, "sys_comp=7\n"));
    ASSERT_EQ(Logger::Initialize(Logger::TYPE_SYSLOG, "", levels, 50, Logger::SCOPE_THREAD), 0);
    syslog_calls.clear();
    LOG_AT(DEBUG, "sys_comp", 99, "debug line %d\n", 7);
    LOG_AT(DEBUG, "sys_other", 100, "dropped\n");
    LOG_AT(WARNING, "sys_other", 101, "warning line\n");
    ASSERT_EQ(syslog_calls.size(), 2u);
    EXPECT_EQ(syslog_calls[0].first, LOG_ERR);
    EXPECT_EQ(syslog_calls[0].second, Prefix("DEBUG", 99) + "debug line 7\n");
    EXPECT_EQ(syslog_calls[1].first, LOG_ERR);
    EXPECT_EQ(syslog_calls[1].second, Prefix("WARNING", 101) + "warning line\n");
}

TEST_F(LoggerTest, FailedInitializeStopsTheLogger) {
    CaptureFd err(STDERR_FILENO);
    CaptureFd out(STDOUT_FILENO);
    EXPECT_EQ(InitFile(""), -1);
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "fail_comp"));
    Logger::LogMsg(Logger::ERROR, "fail_comp", "dropped\n");
    EXPECT_EQ(InitFile(dir / "missing/launcher.log"), -1);
    Logger::LogMsg(Logger::ERROR, "fail_comp", "dropped\n");
    EXPECT_EQ(err.Finish(), "");
    EXPECT_EQ(out.Finish(), "");
}

TEST_F(LoggerTest, NothingIsWrittenAfterDestroy) {
    const std::string path = dir / "launcher.log";
    const std::string levels = dir / "launcher.debug";
    ASSERT_TRUE(testsupport::WriteFile(levels, "destroy_comp=6\n"));
    ASSERT_EQ(InitFile(path, levels), 0);
    Logger::LogMsg(Logger::ERROR, "destroy_comp", "before\n");
    Logger::Destroy();

    CaptureFd err(STDERR_FILENO);
    CaptureFd out(STDOUT_FILENO);
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "destroy_comp"));
    Logger::LogMsg(Logger::ERROR, "destroy_comp", "after\n");
    EXPECT_EQ(err.Finish(), "");
    EXPECT_EQ(out.Finish(), "");
    EXPECT_EQ(testsupport::ReadFile(path).substr(kStampSize), "before\n");
    EXPECT_EQ(Logger::GetCompLevel("destroy_comp"), 6);  // the level table outlives Destroy
}

TEST_F(LoggerTest, MessageStreamsAndErrno) {
    const std::string path = dir / "launcher.log";
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

    std::vector<std::string> lines = Lines(testsupport::ReadFile(path));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].substr(kStampSize),
              std::string("open 5 failed, err=2:") + strerror(ENOENT) + "\n");
    EXPECT_EQ(lines[1].substr(kStampSize), "no error\n");
    EXPECT_EQ(lines[2].substr(kStampSize), "100% literal\n");
    EXPECT_EQ(lines[3].substr(kStampSize), std::string("unterminated, err=13:") + strerror(EACCES));
}

TEST_F(LoggerTest, CEntryTakesAnArgumentList) {
    const std::string path = dir / "launcher.log";
    ASSERT_EQ(InitFile(path), 0);
    CallC(Logger::ERROR, "c_comp", "from C %s %d\n", "code", 3);
    CallC(Logger::INFO, "c_comp", "dropped\n");
    EXPECT_EQ(testsupport::ReadFile(path).substr(kStampSize), "from C code 3\n");
}
