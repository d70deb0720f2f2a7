#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "tests/support/test-support.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 50000;
constexpr int kLine = 321;
constexpr size_t kStampSize = 20;  // "YYYY-MM-DDTHH:MM:SS "
// Padding that makes the run cross the 5 MiB limit several times.
const char kFiller[] = "................................";

}  // namespace

TEST(LoggerThreads, EveryLineOnceAndWholeAcrossRotations) {
    testsupport::TempDir dir;
    const std::string path = dir / "launcher.log";
    ASSERT_EQ(Logger::Initialize(Logger::TYPE_FILE, path, "", 50, Logger::SCOPE_THREAD), 0);
    std::vector<int> thread_ids(kThreads);
    std::vector<std::thread> writers;
    for (int w = 0; w < kThreads; ++w) {
        writers.emplace_back([w, &thread_ids] {
            thread_ids[w] = static_cast<int>(pthread_self() % 100000);
            for (int n = 0; n < kLinesPerThread; ++n)
                LOG_AT(ERROR, "threads_comp", kLine, "writer %d line %d %s\n", w, n, kFiller);
        });
    }
    for (auto& t : writers)
        t.join();
    Logger::Destroy();

    // Oldest rotated file first, the live file last: each writer's numbers must rise by one.
    std::vector<std::string> files;
    struct stat info;
    for (int i = 49; i >= 0; --i) {
        if (stat((path + "_" + std::to_string(i)).c_str(), &info) == 0)
            files.push_back(path + "_" + std::to_string(i));
    }
    files.push_back(path);
    EXPECT_GE(files.size(), 4u) << "the run should rotate a few times";
    std::vector<int> next(kThreads, 0);
    for (const std::string& file : files) {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line)) {
            ASSERT_GT(line.size(), kStampSize) << file;
            int writer = -1, number = -1;
            ASSERT_EQ(sscanf(line.c_str() + kStampSize, "(%*d:%*d) [ERROR] %*s writer %d line %d",
                             &writer, &number),
                      2)
                << line;
            ASSERT_TRUE(writer >= 0 && writer < kThreads) << line;
            // Whole, not torn: exactly what its writer wrote, in its turn.
            char body[160];
            snprintf(body, sizeof(body),
                     "(%5d:%5d) [ERROR] test-log-threads.cpp(%d): writer %d line %d %s",
                     static_cast<int>(getpid()), thread_ids[writer], kLine, writer, number,
                     kFiller);
            ASSERT_EQ(line.substr(kStampSize), body);
            ASSERT_EQ(number, next[writer]++) << "writer " << writer << " in " << file;
        }
    }
    for (int w = 0; w < kThreads; ++w)
        EXPECT_EQ(next[w], kLinesPerThread) << "writer " << w;
}
