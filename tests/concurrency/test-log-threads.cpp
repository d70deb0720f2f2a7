#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "tests/support/test-support.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 50000;
constexpr int kLine = 321;         // fixed line number in every prefix
constexpr size_t kStampSize = 20;  // "YYYY-MM-DDTHH:MM:SS "

// Padding that makes the run cross the 5 MiB limit several times.
const char kFiller[] = "................................";

std::string Body(int thread_id, int writer, int number) {
    char text[160];
    snprintf(text, sizeof(text),
             "(%5d:%5d) [ERROR] test-log-threads.cpp(%d): writer %d line %d %s\n",
             static_cast<int>(getpid()), thread_id, kLine, writer, number, kFiller);
    return text;
}

bool LooksLikeStamp(const std::string& line) {
    static const char shape[] = "dddd-dd-ddTdd:dd:dd ";
    if (line.size() < kStampSize)
        return false;
    for (size_t i = 0; i < kStampSize; ++i) {
        if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(line[i])) : line[i] != shape[i])
            return false;
    }
    return true;
}

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
            for (int n = 0; n < kLinesPerThread; ++n) {
                LOG_AT(ERROR, "threads_comp", kLine, "writer %d line %d %s\n", w, n, kFiller);
            }
        });
    }
    for (auto& t : writers)
        t.join();
    Logger::Destroy();

    // Oldest rotated file first, the live file last: each writer's numbers must rise.
    std::vector<std::string> files;
    for (int i = 49; i >= 0; --i) {
        std::string rotated = path + "_" + std::to_string(i);
        struct stat info;
        if (stat(rotated.c_str(), &info) == 0)
            files.push_back(rotated);
    }
    files.push_back(path);
    EXPECT_GE(files.size(), 4u) << "the run should rotate a few times";

    std::vector<int> next(kThreads, 0);
    long total = 0;
    for (const std::string& file : files) {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line)) {
            ++total;
            ASSERT_TRUE(LooksLikeStamp(line)) << file << ": " << line;
            int writer = -1, number = -1;
            const char* body = line.c_str() + kStampSize;
            const char* at = strstr(body, "writer ");
            ASSERT_NE(at, nullptr) << line;
            ASSERT_EQ(sscanf(at, "writer %d line %d", &writer, &number), 2) << line;
            ASSERT_TRUE(writer >= 0 && writer < kThreads) << line;
            // Whole, not torn: the line is exactly what its writer wrote, in its turn.
            ASSERT_EQ(std::string(body) + "\n", Body(thread_ids[writer], writer, number)) << line;
            ASSERT_EQ(number, next[writer]) << "writer " << writer << " in " << file;
            ++next[writer];
        }
    }
    EXPECT_EQ(total, static_cast<long>(kThreads) * kLinesPerThread);
    for (int w = 0; w < kThreads; ++w)
        EXPECT_EQ(next[w], kLinesPerThread) << "writer " << w;
}
