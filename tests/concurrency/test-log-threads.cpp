#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "log/log.h"
#include "tests/support/test-support.h"

// Eight writers through one file logger, keeping 4 - 1 rotated files, enough to rotate a few
// times: each writer's lines that are kept arrive whole, once and in order, its last one
// included; a file moves aside with the line that takes it past 5 MiB, time stamps counted.
TEST(LoggerThreads, EveryLineOnceAndWholeAcrossRotations) {
    constexpr int kThreads = 8, kLines = 50000, kKept = 3;
    testsupport::TempDir dir;
    const std::string path = dir / "launcher.log";
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, path, "", kKept + 1, Logger::SCOPE_THREAD));
    std::vector<int> ids(kThreads), next(kThreads, -1);
    std::vector<std::thread> writers;
    for (int w = 0; w < kThreads; ++w) {
        writers.emplace_back([w, &ids] {
            ids[w] = static_cast<int>(pthread_self() % 100000);
            for (int n = 0; n < kLines; ++n)
                LOG_AT(ERROR, "threads", 321, "writer %d line %d %032d\n", w, n, 0);
        });
    }
    for (auto& t : writers)
        t.join();
    Logger::Destroy();
    for (int i = kKept; i >= -1; --i) {  // oldest rotated file first, the live file last
        const std::string name = i < 0 ? path : path + "_" + std::to_string(i);
        struct stat st;
        const bool rotated = i >= 0 && i < kKept;
        EXPECT_EQ(i < kKept, stat(name.c_str(), &st) == 0) << name;
        EXPECT_TRUE(!rotated || (st.st_size > 5242880 && st.st_size < 5242880 + 128)) << name;
        std::ifstream in(name);
        for (std::string line; std::getline(in, line);) {
            int w = 0, n = 0;
            ASSERT_EQ(2,
                      sscanf(line.c_str(), "%*s (%*d:%*d) [ERROR] %*s writer %d line %d", &w, &n));
            ASSERT_TRUE(w >= 0 && w < kThreads && (next[w] < 0 || n == next[w])) << line;
            next[w] = n + 1;
            char whole[160];
            snprintf(whole, sizeof(whole),
                     "(%5d:%5d) [ERROR] test-log-threads.cpp(321): writer %d line %d %032d",
                     static_cast<int>(getpid()), ids[w], w, n, 0);
            ASSERT_EQ(whole, line.substr(std::min<size_t>(20, line.size()))) << "torn";
        }
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
}
