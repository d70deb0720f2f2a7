// Unpacking speed of a package-sized archive: Extractor::Extract against `bsdtar -xf` on the
// same archive in the same run, as plain tar and as tar.gz. Prints every run, the medians and
// the ratios.
//
// Usage: bench-extract [runs (default 5)] [work folder (default $TMPDIR or /tmp)]
//
// The archive is generated from a fixed seed, so every run of the benchmark measures the same
// bytes: about 2,000 files and 180 MiB in nested folders, text, code-like and binary-like
// files mixed so that gzip gets about 2:1, like the client's own package.

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include "extractor/extractor.h"
#include "launcher/str-table.h"

extern char** environ;

namespace {

const uint64_t kSeed = 20240611;
const int kFileCount = 2000;
const size_t kTotalBytes = 180u << 20;

// A small, fully specified generator, so the archive is the same on every machine.
class Rng {
public:
    explicit Rng(uint64_t seed) : state_(seed) {}
    uint64_t Next() {  // splitmix64
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    size_t Below(size_t n) { return static_cast<size_t>(Next() % n); }
    double Unit() { return static_cast<double>(Next() >> 11) / 9007199254740992.0; }

private:
    uint64_t state_;
};

std::vector<std::string> MakeWords(Rng& rng, size_t count) {
    static const char letters[] = "etaoinshrdlucmfwypvbgkjqxz";
    std::vector<std::string> words;
    for (size_t i = 0; i < count; ++i) {
        std::string w;
        size_t len = 2 + rng.Below(9);
        for (size_t j = 0; j < len; ++j)
            w += letters[std::min(rng.Below(26), rng.Below(26))];
        words.push_back(w);
    }
    return words;
}

// Prose-like text: words drawn with a skew towards the common ones.
std::string TextFile(Rng& rng, const std::vector<std::string>& words, size_t size) {
    std::string out;
    out.reserve(size + 64);
    size_t line = 0;
    while (out.size() < size) {
        const size_t pick = static_cast<size_t>(std::pow(rng.Unit(), 3.0) * words.size());
        out += words[pick];
        line += words[pick].size() + 1;
        if (line > 72) {
            out += rng.Below(8) == 0 ? ".\n\n" : "\n";
            line = 0;
        } else {
            out += ' ';
        }
    }
    out.resize(size);
    return out;
}

// Source-like text: indentation, keywords, identifiers and numbers.
std::string CodeFile(Rng& rng, const std::vector<std::string>& words, size_t size) {
    static const char* const kKeywords[] = {"if (",     "return ",     "for (int i = 0; i < ",
                                            "while (",  "const auto ", "static int ",
                                            "} else {", "case "};
    std::string out;
    out.reserve(size + 128);
    while (out.size() < size) {
        out.append(4 * rng.Below(4), ' ');
        out += kKeywords[rng.Below(8)];
        out += words[rng.Below(400)] + "_" + words[rng.Below(400)];
        out += rng.Below(2) ? " = " : ", ";
        out += std::to_string(rng.Below(100000));
        out += ");\n";
    }
    out.resize(size);
    return out;
}

// Binary-like: incompressible stretches (packed code, images) between tables and padding.
std::string BinaryFile(Rng& rng, size_t size) {
    std::string out;
    out.reserve(size + 4096);
    uint32_t counter = static_cast<uint32_t>(rng.Next());
    while (out.size() < size) {
        const size_t run = 256 + rng.Below(4096);
        switch (rng.Below(10)) {
            case 0:
            case 1:
            case 2:  // a table of slowly growing offsets
                for (size_t i = 0; i < run / 4; ++i) {
                    counter += static_cast<uint32_t>(rng.Below(64));
                    out.append(reinterpret_cast<const char*>(&counter), 4);
                }
                break;
            case 3:  // padding
                out.append(run, '\0');
                break;
            default:
                for (size_t i = 0; i < run; i += 8) {
                    const uint64_t v = rng.Next();
                    out.append(reinterpret_cast<const char*>(&v), 8);
                }
        }
    }
    out.resize(size);
    return out;
}

struct Stats {
    size_t files = 0, bytes = 0;
};

// Streams the generated tree into an archive file; the same seed gives the same entries.
bool WriteArchive(const std::string& path, bool gzip, Stats* stats) {
    Rng rng(kSeed);
    const std::vector<std::string> words = MakeWords(rng, 3000);
    std::vector<double> weights(kFileCount);
    double sum = 0;
    for (double& w : weights) {
        w = std::exp(rng.Unit() * std::log(3000.0));  // 1 to 3000, log-uniform
        sum += w;
    }

    struct archive* a = archive_write_new();
    archive_write_set_format_pax_restricted(a);
    if (gzip)
        archive_write_add_filter_gzip(a);
    bool ok = archive_write_open_filename(a, path.c_str()) == ARCHIVE_OK;
    *stats = Stats();
    for (int i = 0; ok && i < kFileCount; ++i) {
        const size_t size = static_cast<size_t>(weights[i] / sum * kTotalBytes);
        std::string data;
        const size_t kind = rng.Below(100);
        std::string ext;
        if (kind < 30) {
            data = TextFile(rng, words, size);
            ext = ".txt";
        } else if (kind < 55) {
            data = CodeFile(rng, words, size);
            ext = ".cpp";
        } else {
            data = BinaryFile(rng, size);
            ext = ".bin";
        }
        const std::string name = "nimbrel/" + words[i % 40] + "/" + words[(i / 40) % 12] + "/" +
                                 words[i] + std::to_string(i) + ext;
        struct archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, name.c_str());
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, kind < 55 ? 0644 : 0755);
        archive_entry_set_mtime(entry, 1700000000, 0);
        archive_entry_set_size(entry, static_cast<la_int64_t>(data.size()));
        ok =
            archive_write_header(a, entry) == ARCHIVE_OK &&
            archive_write_data(a, data.data(), data.size()) == static_cast<la_ssize_t>(data.size());
        archive_entry_free(entry);
        stats->files += 1;
        stats->bytes += data.size();
    }
    ok = archive_write_close(a) == ARCHIVE_OK && ok;
    archive_write_free(a);
    return ok;
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double CpuSeconds(const struct rusage& u) {
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Wall-clock and CPU (user + system) seconds of one extraction; negative on failure. The
// machine may be shared, so CPU time is the steadier of the two figures.
struct Timing {
    double wall = -1, cpu = -1;
};

Timing TimeOurs(const std::string& archive, const std::string& target) {
    Extractor x;
    x.SetSource(archive);
    x.SetTarget(target);
    struct rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    const auto start = std::chrono::steady_clock::now();
    const int r = x.Extract();
    const double wall = Seconds(start);
    getrusage(RUSAGE_SELF, &after);
    if (r != 0)
        return Timing();
    return {wall, CpuSeconds(after) - CpuSeconds(before)};
}

Timing TimeBsdtar(const std::string& archive, const std::string& target) {
    const char* argv[] = {"bsdtar", "-xf", archive.c_str(), "-C", target.c_str(), nullptr};
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, "bsdtar", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        return Timing();
    }
    int status = 0;
    struct rusage usage;
    wait4(pid, &status, 0, &usage);
    const double wall = Seconds(start);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return Timing();
    return {wall, CpuSeconds(usage)};
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Prints the runs of one format, the medians and the ratios; false when a run failed.
bool Report(const char* label, const std::vector<Timing>& ours, const std::vector<Timing>& theirs) {
    std::vector<double> figures[4];  // wall ours, wall bsdtar, cpu ours, cpu bsdtar
    for (size_t i = 0; i < ours.size(); ++i) {
        figures[0].push_back(ours[i].wall);
        figures[1].push_back(theirs[i].wall);
        figures[2].push_back(ours[i].cpu);
        figures[3].push_back(theirs[i].cpu);
    }
    const char* names[4] = {"Extract wall", "bsdtar  wall", "Extract cpu ", "bsdtar  cpu "};
    bool ok = true;
    for (int k = 0; k < 4; ++k) {
        std::printf("%-7s %s:", label, names[k]);
        for (double s : figures[k]) {
            std::printf(" %.3f", s);
            ok = ok && s >= 0;
        }
        std::printf("\n");
    }
    if (!ok) {
        std::printf("%-7s a run failed\n\n", label);
        return false;
    }
    const double wall_ours = Median(figures[0]), wall_theirs = Median(figures[1]);
    const double cpu_ours = Median(figures[2]), cpu_theirs = Median(figures[3]);
    std::printf("%-7s median wall: Extract %.3f s, bsdtar %.3f s, ratio %.2f\n", label, wall_ours,
                wall_theirs, wall_ours / wall_theirs);
    std::printf("%-7s median cpu:  Extract %.3f s, bsdtar %.3f s, ratio %.2f\n\n", label, cpu_ours,
                cpu_theirs, cpu_ours / cpu_theirs);
    return true;
}

std::string Fresh(const std::string& folder) {
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    std::filesystem::create_directories(folder, ec);
    sync();  // start every run without the previous run's writes still pending
    return folder;
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const char* tmp = std::getenv("TMPDIR");
    std::string base = argc > 2 ? argv[2] : (tmp && *tmp ? tmp : "/tmp");
    std::string pattern = base + "/bench-extract-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string work = pattern;
    StrTable::InitStrTable();

    struct Case {
        const char* label;
        std::string archive;
        bool gzip;
    };
    const Case cases[] = {{"tar", work + "/package.tar", false},
                          {"tar.gz", work + "/package.tar.gz", true}};
    Stats stats;
    for (const Case& c : cases) {
        if (!WriteArchive(c.archive, c.gzip, &stats)) {
            std::fprintf(stderr, "cannot write %s\n", c.archive.c_str());
            return 1;
        }
    }
    const double plain = static_cast<double>(std::filesystem::file_size(cases[0].archive));
    const double packed = static_cast<double>(std::filesystem::file_size(cases[1].archive));
    std::printf("archive: %zu files, %.1f MiB of data; tar %.1f MiB, tar.gz %.1f MiB (%.2f:1)\n",
                stats.files, stats.bytes / 1048576.0, plain / 1048576.0, packed / 1048576.0,
                plain / packed);
    std::printf("runs per tool and format: %d, alternating, each into an empty folder\n\n", runs);

    bool failed = false;
    for (const Case& c : cases) {
        std::vector<Timing> ours, theirs;
        for (int i = 0; i < runs; ++i) {
            ours.push_back(TimeOurs(c.archive, Fresh(work + "/out")));
            theirs.push_back(TimeBsdtar(c.archive, Fresh(work + "/out")));
        }
        failed = !Report(c.label, ours, theirs) || failed;
    }
    std::error_code ec;
    std::filesystem::remove_all(work, ec);
    return failed ? 1 : 0;
}
