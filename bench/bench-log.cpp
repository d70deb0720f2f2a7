// Lines per second through the file logger, every line flushed, beside spdlog's basic file
// sink flushed on every line, with the same lines in the same run.
//
//   bench-log [lines per run, default 200000] [rounds, default 3]
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"

namespace {

const char kComponent[] = "bench_debug";
const char kPath[] = "/opt/Corvane/CorvaneQuarn/package/nimbrel/bin/cloud-quarn-ui";

std::string MakeFolder() {
    char pattern[] = "/tmp/bench-log-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (!made) {
        perror("mkdtemp");
        exit(1);
    }
    return made;
}

void RemoveFolder(const std::string& dir) {
    std::string command = "rm -rf '" + dir + "'";
    if (system(command.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", dir.c_str());
}

// Runs `write_lines(writer, count)` on `threads` threads; returns lines per second.
double Measure(int threads, int lines, const std::function<void(int, int)>& write_lines) {
    const int per_thread = lines / threads;
    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back(write_lines, t, per_thread);
    for (auto& w : workers)
        w.join();
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return per_thread * threads / took.count();
}

double RunLogger(int threads, int lines) {
    const std::string dir = MakeFolder();
    if (Logger::Initialize(Logger::TYPE_FILE, dir + "/launcher.log", "", 50,
                           Logger::SCOPE_THREAD) != 0) {
        fprintf(stderr, "logger: cannot open %s/launcher.log\n", dir.c_str());
        exit(1);
    }
    double rate = Measure(threads, lines, [](int writer, int count) {
        for (int n = 0; n < count; ++n) {
            LOG_AT(ERROR, kComponent, 412, "copy %s: writer %d line %d\n", kPath, writer, n);
        }
    });
    Logger::Destroy();
    RemoveFolder(dir);
    return rate;
}

double RunSpdlog(int threads, int lines) {
    const std::string dir = MakeFolder();
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(dir + "/spdlog.log");
    auto logger = std::make_shared<spdlog::logger>("bench", sink);
    logger->set_pattern("%Y-%m-%dT%H:%M:%S %v");  // the same time stamp as the file logger
    logger->flush_on(spdlog::level::trace);
    double rate = Measure(threads, lines, [&logger](int writer, int count) {
        for (int n = 0; n < count; ++n) {
            logger->error("({:5d}:{:5d}) [ERROR] {}({}): copy {}: writer {} line {}",
                          static_cast<int>(getpid()), static_cast<int>(pthread_self() % 100000),
                          LogBaseName(__FILE__), 412, kPath, writer, n);
        }
    });
    logger.reset();
    sink.reset();
    RemoveFolder(dir);
    return rate;
}

}  // namespace

int main(int argc, char** argv) {
    const int lines = argc > 1 ? atoi(argv[1]) : 200000;
    const int rounds = argc > 2 ? atoi(argv[2]) : 3;
    if (lines <= 0 || rounds <= 0) {
        fprintf(stderr, "usage: %s [lines per run] [rounds]\n", argv[0]);
        return 2;
    }

    printf("%d lines per run, flushed line by line, best of %d rounds (the two alternate)\n\n",
           lines, rounds);
    printf("%-8s %18s %18s %8s\n", "threads", "logger lines/s", "spdlog lines/s", "ratio");
    for (int threads : {1, 8}) {
        double ours = 0, theirs = 0;
        for (int round = 0; round < rounds; ++round) {
            ours = std::max(ours, RunLogger(threads, lines));
            theirs = std::max(theirs, RunSpdlog(threads, lines));
        }
        printf("%-8d %18.0f %18.0f %8.2f\n", threads, ours, theirs, ours / theirs);
    }
    return 0;
}
