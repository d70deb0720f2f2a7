#include <unistd.h>

#include <fstream>
#include <thread>

#include "log/log.h"
#include "tests/support/test-support.h"

// Eight writers through one file logger, enough to cross the 5 MiB limit a few times: every
// line must arrive whole, once, and in its writer's order, across the rotated files.
TEST(LoggerThreads, EveryLineOnceAndWholeAcrossRotations) {
    constexpr int kThreads = 8, kLines = 50000;
    testsupport::TempDir dir;
    const std::string path = dir / "launcher.log";
    ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, path, "", 50, Logger::SCOPE_THREAD));
    std::vector<int> ids(kThreads), next(kThreads, 0);
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
    for (int i = 49; i >= -1; --i) {  // oldest rotated file first, the live file last
        std::ifstream in(i < 0 ? path : path + "_" + std::to_string(i));
        for (std::string line; std::getline(in, line);) {
            int w = 0, n = 0;
            ASSERT_EQ(2,
                      sscanf(line.c_str(), "%*s (%*d:%*d) [ERROR] %*s writer %d line %d", &w, &n));
            ASSERT_TRUE(w >= 0 && w < kThreads && n == next[w]++) << line;
            char whole[160];
            snprintf(whole, sizeof(whole),
                     "(%5d:%5d) [ERROR] test-log-threads.cpp(321): writer %d line %d %032d",
                     static_cast<int>(getpid()), ids[w], w, n, 0);
            ASSERT_EQ(whole, line.substr(std::min<size_t>(20, line.size()))) << "torn";
        }
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
    EXPECT_EQ(0, access((path + "_2").c_str(), F_OK)) << "the run should rotate a few times";
}
