#include <regex>
#include <thread>

#include "log/log.h"
#include "tests/support/test-support.h"

using Lines = std::vector<std::string>;

// The lines of a log without their time stamps; a line without one is left out.
static Lines Unstamped(const std::string& text) {
    static const std::regex line("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d ([^\n]*\n?)");
    Lines lines;
    for (std::sregex_iterator it(text.begin(), text.end(), line), end; it != end; ++it)
        lines.push_back((*it)[1]);
    return lines;
}

static std::string Prefix(const char* tag, int line) {  // as the calling thread writes it
    char text[128];
    snprintf(text, sizeof(text), "(%5d:%5d) [%s] test-log.cpp(%d): ", static_cast<int>(getpid()),
             static_cast<int>(pthread_self() % 100000), tag, line);
    return text;
}

// Before Initialize, ERROR and WARNING lines go to standard error. In the level file a value
// that is no number is 0, an unknown component takes WARNING, "default_component" is a name.
TEST(Logger, LinesAndComponentLevels) {
    testing::internal::CaptureStderr();
    LOG_AT(WARNING, "startup", 12, "early %d\n", 2);
    LOG_AT(NOTE, "startup", 13, "early %d\n", 3);
    EXPECT_EQ(Lines{Prefix("WARNING", 12) + "early 2\n"},
              Unstamped(testing::internal::GetCapturedStderr()));
    testsupport::TempDir dir;
    const std::string path = dir / "launcher.log", levels = dir / "launcher.debug";
    ASSERT_TRUE(testsupport::WriteFile(
        levels, "c7=7\nc5 = \"5\"\nc_abc=abc\nc3=3 # errors\nc6x=6x\ndefault_component=7\n"));
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto files_before = open_files();
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, path, levels, 50, Logger::SCOPE_THREAD));
    LOG_AT(ERROR, "c7", 1234, "%s\n", "e");
    const int here = __LINE__ + 1;
    LOG_HERE(DEBUG, "c7", "%d%%\n", 50);
    Lines expected = {Prefix("ERROR", 1234) + "e\n", Prefix("DEBUG", here) + "50%\n"};
    const std::tuple<Logger::Level, const char*, bool> cases[] = {
        {Logger::NOTE, "c5", true},      {Logger::INFO, "c5", false},
        {Logger::ERROR, "c_abc", false}, {Logger::ERROR, "c3", true},
        {Logger::WARNING, "c3", false},  {Logger::INFO, "c6x", true},
        {Logger::DEBUG, "c6x", false},   {Logger::WARNING, "?", true},
        {Logger::NOTE, "?", false},      {Logger::DEBUG, "default_component", true}};
    for (const auto& [level, component, written] : cases) {
        EXPECT_EQ(written, Logger::IsNeedToLog(level, component)) << component;
        Logger::LogMsg(level, component, "%s %d\n", component, level);
        if (written)
            expected.push_back(component + (" " + std::to_string(level)) + "\n");
    }
    std::stringstream stream("open 5");  // errno and its text added when asked for; errno kept
    errno = ENOENT;
    Logger::LogMsg3(Logger::ERROR, "c3", stream, Logger::ConfigFlag(6));
    EXPECT_EQ(ENOENT, errno);
    expected.push_back("open 5, err=2:" + std::string(strerror(ENOENT)) + "\n");
    std::stringstream plain("no errno asked for");  // errno is still set
    Logger::LogMsg3(Logger::ERROR, "c3", plain, Logger::FLAG_NEWLINE);
    expected.push_back("no errno asked for\n");
    EXPECT_EQ(expected, Unstamped(testsupport::ReadFile(path)));

    // Stopped, the logger writes nowhere and holds no file.
    Logger::Destroy();
    EXPECT_EQ(files_before, open_files());
    Logger::LogMsg(Logger::ERROR, "c3", "after\n");
    EXPECT_FALSE(Logger::IsNeedToLog(Logger::ERROR, "c3"));
    EXPECT_EQ(expected, Unstamped(testsupport::ReadFile(path)));
}

// Eight writers rotating a few times: each line whole, once, in its writer's order; a file moves
// aside with the line that takes it past 5 MiB. With a count of 3, only path_0 and path_1 stay.
TEST(LoggerThreads, EveryLineOnceAndWholeAcrossRotations) {
    constexpr int kThreads = 8, kLines = 50000;
    testsupport::TempDir dir;
    const std::string path = dir / "launcher.log", small = dir / "small.log";
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, path, "", 50, Logger::SCOPE_THREAD));
    std::vector<std::string> prefixes(kThreads);  // each writer's, as its thread sees it
    std::vector<int> next(kThreads, 0);
    std::vector<std::thread> writers;
    for (int w = 0; w < kThreads; ++w) {
        writers.emplace_back([w, &prefixes] {
            prefixes[w] = Prefix("ERROR", 321);
            for (int n = 0; n < kLines; ++n)
                LOG_AT(ERROR, "threads", 321, "writer %d line %d %032d\n", w, n, 0);
        });
    }
    for (auto& t : writers)
        t.join();
    Logger::Destroy();
    for (int i = 49; i >= -1; --i) {  // oldest rotated file first, the live file last
        const std::string name = i < 0 ? path : path + "_" + std::to_string(i);
        struct stat st;
        EXPECT_TRUE(i < 0 || stat(name.c_str(), &st) != 0 ||
                    (st.st_size > 5242880 && st.st_size < 5242880 + 128))
            << name;
        std::ifstream in(name);
        for (std::string line; std::getline(in, line);) {
            int w = 0, n = 0;
            ASSERT_EQ(2,
                      sscanf(line.c_str(), "%*s (%*d:%*d) [ERROR] %*s writer %d line %d", &w, &n));
            ASSERT_TRUE(w >= 0 && w < kThreads && n == next[w]++) << line;
            char whole[160];
            snprintf(whole, sizeof(whole), "%swriter %d line %d %032d", prefixes[w].c_str(), w, n,
                     0);
            ASSERT_EQ(whole, line.substr(std::min<size_t>(20, line.size()))) << "torn";
        }
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
    EXPECT_EQ(0, access((path + "_2").c_str(), F_OK)) << "the run should rotate a few times";
    for (int i = 0; i < 4; ++i) {  // a file at the limit: the next line moves it aside
        ASSERT_TRUE(testsupport::WriteFile(small, "") && truncate(small.c_str(), 5242880) == 0);
        ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, small, "", 3, Logger::SCOPE_NONE));
        LOG_AT(ERROR, "rotation", 1, "%d\n", i);
        Logger::Destroy();
    }
    EXPECT_TRUE(access((small + "_1").c_str(), F_OK) == 0 && access((small + "_2").c_str(), F_OK));
}
