// Copying a package-sized folder the way the upgrade does (FSCopy file by file, walked with the
// layer's own listing) against `cp -r` of the same tree in the same run. Both copies run in a
// child process of their own, warm cache, alternating which goes first; prints every round,
// the medians, their ratio and the peak resident memory of each copy. The copy is also timed on
// a tree a tenth of the size, to show that its memory does not grow with the tree.
//
// Usage: bench-copy [rounds (default 5)] [work folder (default $TMPDIR or /tmp)]
//
// The tree is generated from a fixed seed, so every run measures the same bytes: about 2,000
// files and 180 MiB (200 B to 300 KiB each) in 40 folders, text, code-like and binary-like
// files mixed so that gzip gets about 2:1, like the client's own package.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "lib/file/file-op.h"

namespace {

const uint64_t kSeed = 0x5eedc0b1ull;
const int kFiles = 2000;
const size_t kMinSize = 200;
const size_t kMaxSize = 300 * 1024;
// Sizes are kMinSize + span * u^kSkew: the mean lands near 180 MiB / 2,000 files.
const double kSkew = 2.26;

// xorshift64*: fully specified, so the tree is the same with every compiler and library.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed ? seed : 1) {}
    uint64_t Next() {
        state_ ^= state_ >> 12;
        state_ ^= state_ << 25;
        state_ ^= state_ >> 27;
        return state_ * 0x2545F4914F6CDD1Dull;
    }
    size_t Upto(size_t n) { return static_cast<size_t>(Next() % n); }
    double Fraction() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }

private:
    uint64_t state_;
};

// A vocabulary of pronounceable words; the first ones are drawn far more often.
std::vector<std::string> Vocabulary(Random& random) {
    static const char* const kSyllables[] = {"ka", "lo",  "ren", "ti", "mar", "os", "ve",  "qu",
                                             "an", "dri", "sel", "po", "um",  "ex", "nor", "ia"};
    std::vector<std::string> words(1500);
    for (std::string& word : words) {
        const size_t parts = 1 + random.Upto(3);
        for (size_t i = 0; i < parts; ++i)
            word += kSyllables[random.Upto(16)];
    }
    return words;
}

const std::string& Word(Random& random, const std::vector<std::string>& words) {
    const double skewed = random.Fraction() * random.Fraction() * random.Fraction();
    return words[static_cast<size_t>(skewed * words.size())];
}

void Prose(Random& random, const std::vector<std::string>& words, size_t size, std::string& out) {
    while (out.size() < size) {
        out += Word(random, words);
        out += random.Upto(12) == 0 ? ".\n" : " ";
    }
}

void Code(Random& random, const std::vector<std::string>& words, size_t size, std::string& out) {
    static const char* const kShapes[] = {"if (%s_%s > %u) {\n", "    return %s(%s, %u);\n", "}\n",
                                          "static const int %s_%s = %u;\n",
                                          "    %s->%s[%u] = nullptr;\n"};
    char line[256];
    while (out.size() < size) {
        snprintf(line, sizeof(line), kShapes[random.Upto(5)], Word(random, words).c_str(),
                 Word(random, words).c_str(), static_cast<unsigned>(random.Upto(4096)));
        out += line;
    }
}

// Packed sections (noise), symbol-like tables and padding, as in libraries and images.
void Binary(Random& random, size_t size, std::string& out) {
    uint32_t offset = static_cast<uint32_t>(random.Next());
    while (out.size() < size) {
        const size_t run = 512 + random.Upto(3584);
        const size_t kind = random.Upto(8);
        if (kind < 5) {
            for (size_t i = 0; i < run; i += 8) {
                const uint64_t noise = random.Next();
                out.append(reinterpret_cast<const char*>(&noise), 8);
            }
        } else if (kind < 7) {
            for (size_t i = 0; i < run; i += 4) {
                offset += static_cast<uint32_t>(random.Upto(48));
                out.append(reinterpret_cast<const char*>(&offset), 4);
            }
        } else {
            out.append(run, '\0');
        }
    }
}

struct TreeStats {
    int files = 0;
    int folders = 0;
    uint64_t bytes = 0;
};

bool WriteWhole(const std::string& path, const std::string& data, mode_t mode) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    const bool ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
    return close(fd) == 0 && ok;
}

// 8 top folders of 4 sub-folders each (40 folders), files spread over all of them.
bool MakeTree(const std::string& root, int files, TreeStats& stats) {
    static const char* const kTop[] = {"bin",          "lib",   "share", "plugins",
                                       "translations", "icons", "docs",  "package"};
    Random random(kSeed);
    const std::vector<std::string> words = Vocabulary(random);
    std::vector<std::string> folders;
    for (const char* name : kTop) {
        const std::string top = root + "/" + name;
        folders.push_back(top);
        for (int sub = 0; sub < 4; ++sub) {
            folders.push_back(top + "/" + words[folders.size()] + std::to_string(sub));
        }
    }
    for (const std::string& folder : folders) {
        if (FSMKDir(folder, true) != 0)
            return false;
    }
    stats = TreeStats();
    stats.folders = static_cast<int>(folders.size());
    std::string data;
    for (int i = 0; i < files; ++i) {
        const size_t size = kMinSize + static_cast<size_t>((kMaxSize - kMinSize) *
                                                           std::pow(random.Fraction(), kSkew));
        data.clear();
        const size_t kind = random.Upto(100);
        const char* suffix = ".bin";
        if (kind < 30) {
            Prose(random, words, size, data);
            suffix = ".txt";
        } else if (kind < 55) {
            Code(random, words, size, data);
            suffix = ".cpp";
        } else {
            Binary(random, size, data);
        }
        data.resize(size);
        const std::string path = folders[random.Upto(folders.size())] + "/" + Word(random, words) +
                                 std::to_string(i) + suffix;
        if (!WriteWhole(path, data, kind < 55 ? 0644 : 0755))
            return false;
        stats.files += 1;
        stats.bytes += size;
    }
    return true;
}

// The upgrade's walk: folders made recursively, files copied one by one keeping their mode.
int CopyTree(const std::string& source, const std::string& dest) {
    _FILE_INFO_tag info;
    if (FSStat(source, info, false) < 0 || !info.exists)
        return -1;
    if (info.type != 2) {
        FSCopy(source, dest, false, false);
        return 0;
    }
    if (FSMKDir(dest, true) < 0)
        return -1;
    DIR_HANDLE handle;
    if (FSOpenDir(source, 0, handle) < 0)
        return 0;
    DIR_ENTRY entry;
    int result = 0;
    while (result == 0 && FSReadDir(handle, entry) > 0) {
        if (entry.name == "." || entry.name == "..")
            continue;
        const std::string from = source + "/" + entry.name, to = dest + "/" + entry.name;
        const int copied = entry.type == 2 ? CopyTree(from, to) : FSCopy(from, to, false, true);
        if (copied < 0)
            result = -1;
    }
    FSCloseDir(handle);
    return result;
}

struct Run {
    double seconds = -1;
    long peak_kib = 0;
};

// Runs one copy in a child of its own and measures its wall time and peak resident memory.
Run Measure(bool ours, const std::string& source, const std::string& dest) {
    sync();  // the previous round's writes must not land in this one
    Run run;
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid < 0)
        return run;
    if (pid == 0) {
        if (ours)
            _exit(CopyTree(source, dest) == 0 ? 0 : 1);
        execlp("cp", "cp", "-r", source.c_str(), dest.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    struct rusage usage {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return run;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.peak_kib = usage.ru_maxrss;
    return run;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double GzipRatio(const std::string& root, uint64_t bytes) {
    const std::string command = "tar -C '" + root + "' -cf - . | gzip -c | wc -c";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return 0;
    unsigned long long packed = 0;
    const bool read = fscanf(pipe, "%llu", &packed) == 1;
    pclose(pipe);
    return read && packed ? static_cast<double>(bytes) / static_cast<double>(packed) : 0;
}

bool SameTrees(const std::string& a, const std::string& b) {
    return system(("diff -r '" + a + "' '" + b + "' >/dev/null").c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    const char* tmp = getenv("TMPDIR");
    const std::string base = argc > 2 ? argv[2] : (tmp && *tmp ? tmp : "/tmp");
    std::string work;
    if (FSMktemp(base, work) != 0 || remove(work.c_str()) != 0 || FSMKDir(work, false) != 0) {
        fprintf(stderr, "bench-copy: cannot make a work folder in %s\n", base.c_str());
        return 1;
    }
    const std::string source = work + "/nimbrel", small = work + "/small";
    const std::string ours = work + "/ours", theirs = work + "/cp";
    TreeStats stats, small_stats;
    if (!MakeTree(source, kFiles, stats) || !MakeTree(small, kFiles / 10, small_stats)) {
        fprintf(stderr, "bench-copy: cannot generate the tree in %s\n", work.c_str());
        FSRemove(work, false);
        return 1;
    }
    printf("tree: %d files, %d folders, %.1f MiB, gzip ratio %.2f:1 (%s)\n", stats.files,
           stats.folders, stats.bytes / 1048576.0, GzipRatio(source, stats.bytes), work.c_str());

    // Warm the cache with one untimed copy of each kind, and check that ours is complete.
    Measure(true, source, ours);
    Measure(false, source, theirs);
    const bool same = SameTrees(source, ours);
    printf("FSCopy tree identical to the source: %s\n", same ? "yes" : "NO");
    FSRemove(ours, false);
    FSRemove(theirs, false);

    std::vector<double> our_times, cp_times;
    long our_peak = 0, cp_peak = 0;
    bool failed = !same;
    for (int round = 0; round < rounds; ++round) {
        Run mine, reference;
        for (int turn = 0; turn < 2; ++turn) {
            const bool our_turn = (turn == 0) == (round % 2 == 0);
            Run& run = our_turn ? mine : reference;
            run = Measure(our_turn, source, our_turn ? ours : theirs);
            FSRemove(our_turn ? ours : theirs, false);
        }
        failed = failed || mine.seconds < 0 || reference.seconds < 0;
        printf("round %d (%s first): FSCopy %.3f s, %ld KiB; cp -r %.3f s, %ld KiB\n", round + 1,
               round % 2 == 0 ? "FSCopy" : "cp", mine.seconds, mine.peak_kib, reference.seconds,
               reference.peak_kib);
        our_times.push_back(mine.seconds);
        cp_times.push_back(reference.seconds);
        our_peak = std::max(our_peak, mine.peak_kib);
        cp_peak = std::max(cp_peak, reference.peak_kib);
    }
    const Run small_run = Measure(true, small, ours);
    FSRemove(ours, false);

    const double our_median = Median(our_times), cp_median = Median(cp_times);
    printf("median wall time: FSCopy %.3f s, cp -r %.3f s, ratio FSCopy/cp %.3f\n", our_median,
           cp_median, our_median / cp_median);
    printf("peak resident memory: FSCopy %ld KiB (tree of %.1f MiB: %ld KiB), cp -r %ld KiB\n",
           our_peak, small_stats.bytes / 1048576.0, small_run.peak_kib, cp_peak);
    FSRemove(work, false);
    return failed ? 1 : 0;
}
