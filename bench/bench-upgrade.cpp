// Upgrade of a large package with an old copy present: PrepareUserEnv (backup move, copy of
// the package folder, sync of the copy, removal of the backup), the same steps without the sync,
// beside the shell doing the same with `mv` and `cp -r` (and `rm -rf` of the backup), in the same
// run on the same disk; and the peak resident memory of the upgrade for a large and a small
// package.
//
//   bench-upgrade [--reps N] [--base DIR] [--script PATH]
//
// The service's upgrade also removes the backup, which `mv` + `cp -r` does not: the figures
// are given against both references, and split into copy and removal.
//
// The package is the sample installation enlarged by scripts/make-sample-install --large
// (about 2,000 files, 180 MiB). Each timed run starts from the same old copy, written to disk
// (sync) before the clock starts.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "lib/desktop/ui-path-manager.h"
#include "lib/file/file-op.h"
#include "log/log.h"
#include "service/cloud-service.h"
#include "service/linux/linux-service.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string g_home, g_app;

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool Sh(const std::string& command) {
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "failed: %s\n", command.c_str());
        return false;
    }
    return true;
}

std::string Quote(const std::string& path) {
    return "'" + path + "'";
}

// A HOME of the benchmark's own and the path table filled for it and this system root.
void UseInstallation(const std::string& home, const std::string& root) {
    setenv("HOME", home.c_str(), 1);
    unsetenv("XDG_CURRENT_DESKTOP");
    FillQuarnPathTable(&Service::GetUserInstallPath, QString::fromStdString(root + "/bin"));
    UIPathManager* table = UIPathManager::getInstance();
    g_app = table->getPath("user_corvane_quarn_app_path").toStdString();
}

// Puts the old copy in place and flushes it, so that no timed run pays for its writing.
bool ResetOldCopy(const std::string& old_copy) {
    return Sh("rm -rf " + Quote(g_home + "/.CorvaneQuarn") + " && mkdir -p " +
              Quote(g_home + "/.CorvaneQuarn") + " && cp -a " + Quote(old_copy) + " " +
              Quote(g_app) + " && sync");
}

struct ChildRun {
    double seconds = -1;  // wall time of the measured call, inside the child
    long peak_kib = 0;    // the child's peak resident set
    int result = -1;
};

// Runs `body` in a child; its wall time and peak resident memory come back.
template <typename Body>
ChildRun InChild(Body body) {
    int pipefd[2];
    ChildRun run;
    if (pipe(pipefd) != 0) {
        return run;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(pipefd[0]);
        const Clock::time_point start = Clock::now();
        const int rc = body();
        const double s = Seconds(start);
        if (write(pipefd[1], &s, sizeof(s)) != sizeof(s)) {
            _exit(5);
        }
        _exit(rc == 0 ? 0 : 1);
    }
    close(pipefd[1]);
    if (read(pipefd[0], &run.seconds, sizeof(run.seconds)) != sizeof(run.seconds)) {
        run.seconds = -1;
    }
    close(pipefd[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    run.peak_kib = usage.ru_maxrss;
    run.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

std::string DefaultScript() {
    std::string here = __FILE__;
    here = here.substr(0, here.rfind('/'));
    return here.substr(0, here.rfind('/')) + "/scripts/make-sample-install";
}

}  // namespace

int main(int argc, char** argv) {
    int reps = 5;
    std::string base = "/tmp";
    std::string script = DefaultScript();
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--reps") && i + 1 < argc) {
            reps = std::max(1, atoi(argv[++i]));
        } else if (!strcmp(argv[i], "--base") && i + 1 < argc) {
            base = argv[++i];
        } else if (!strcmp(argv[i], "--script") && i + 1 < argc) {
            script = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--reps N] [--base DIR] [--script PATH]\n", argv[0]);
            return 2;
        }
    }
    std::string work = base + "/bench-upgrade-XXXXXX";
    if (!mkdtemp(&work[0])) {
        perror("mkdtemp");
        return 2;
    }
    const std::string large = work + "/large", small = work + "/small";
    g_home = work + "/home";
    printf("making the packages (scripts/make-sample-install --large) ...\n");
    fflush(stdout);
    if (!Sh(Quote(script) + " --large " + Quote(large) + " 121") ||
        !Sh(Quote(script) + " " + Quote(small) + " 121")) {
        return 2;
    }
    // The old copy: the same tree at build 120.
    const std::string old_large = work + "/old-large", old_small = work + "/old-small";
    if (!Sh("cp -a " + Quote(large + "/package/nimbrel") + " " + Quote(old_large) +
            " && sed -i s/build_version=121/build_version=120/ " + Quote(old_large + "/INFO")) ||
        !Sh("cp -a " + Quote(small + "/package/nimbrel") + " " + Quote(old_small))) {
        return 2;
    }
    Logger::Initialize(Logger::TYPE_FILE, work + "/launcher.log", "", 50, Logger::SCOPE_THREAD);

    UseInstallation(g_home, large);
    const std::string backup = g_app + "_tmp";
    std::vector<double> ours, our_copy, our_sync, our_remove, ref_copy, ref_remove, ref_all,
        plain_copy;
    long peak_large = 0;
    for (int r = 0; r < reps; ++r) {
        // Rotate the order, so that no variant always meets the warmer cache.
        for (int k = 0; k < 4; ++k) {
            if (!ResetOldCopy(old_large)) {
                return 2;
            }
            const int turn = (k + r) % 4;
            if (turn == 0) {
                const ChildRun run = InChild([] {
                    LinuxService service;
                    return service.PrepareUserEnv();
                });
                if (run.result != 0) {
                    fprintf(stderr, "PrepareUserEnv failed\n");
                    return 1;
                }
                ours.push_back(run.seconds);
                peak_large = std::max(peak_large, run.peak_kib);
            } else if (turn == 1) {
                // The same steps one at a time: the move as the shell does it, then the
                // service's copy and the file layer's removal of the backup.
                if (!Sh("mv " + Quote(g_app) + " " + Quote(backup))) {
                    return 2;
                }
                our_copy.push_back(InChild([] {
                                       LinuxService service;
                                       return service.CopyPackage();
                                   }).seconds);
                our_sync.push_back(InChild([] { return FSSyncFs(g_app); }).seconds);
                our_remove.push_back(
                    InChild([&backup] { return FSRemove(backup, false); }).seconds);
            } else if (turn == 3) {
                // The same copy without counting first and without progress reports.
                if (!Sh("mv " + Quote(g_app) + " " + Quote(backup))) {
                    return 2;
                }
                const std::string source = large + "/package/nimbrel";
                plain_copy.push_back(InChild([&source] {
                                         LinuxService service;
                                         return service.FSCopyPath(source, g_app);
                                     }).seconds);
                FSRemove(backup, false);
            } else {
                Clock::time_point start = Clock::now();
                if (!Sh("mv " + Quote(g_app) + " " + Quote(backup) + " && cp -r " +
                        Quote(large + "/package/nimbrel") + " " + Quote(g_app))) {
                    return 2;
                }
                ref_copy.push_back(Seconds(start));
                start = Clock::now();
                if (!Sh("rm -rf " + Quote(backup))) {
                    return 2;
                }
                ref_remove.push_back(Seconds(start));
                ref_all.push_back(ref_copy.back() + ref_remove.back());
            }
        }
    }

    // Peak memory for the small package, and for a child that only starts and ends.
    UseInstallation(g_home, small);
    long peak_small = 0;
    for (int r = 0; r < reps; ++r) {
        if (!ResetOldCopy(old_small)) {
            return 2;
        }
        peak_small = std::max(peak_small, InChild([] {
                                              LinuxService service;
                                              return service.PrepareUserEnv();
                                          }).peak_kib);
    }
    const long peak_idle = InChild([] { return 0; }).peak_kib;

    long files = 0;
    double mib = 0;
    std::error_code ec;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(large + "/package/nimbrel", ec)) {
        if (entry.is_regular_file(ec)) {
            ++files;
            mib += static_cast<double>(entry.file_size(ec)) / (1024.0 * 1024.0);
        }
    }
    printf("\npackage: %ld files, %.1f MiB\n", files, mib);
    printf(
        "\nupgrade of the large sample package over an old copy of the same size, %d runs "
        "each, medians (min)\n",
        reps);
    const auto row = [](const char* what, const std::vector<double>& v) {
        printf("  %-48s %7.3f s (%.3f)\n", what, Median(v), *std::min_element(v.begin(), v.end()));
    };
    std::vector<double> unsynced;  // the installation's steps without the sync of the copy
    for (size_t i = 0; i < our_copy.size(); ++i) {
        unsynced.push_back(our_copy[i] + our_remove[i]);
    }
    row("PrepareUserEnv (move aside, copy, sync, remove backup)", ours);
    row("the same steps without the sync (copy + removal)", unsynced);
    row("mv + cp -r", ref_copy);
    row("mv + cp -r + rm -rf of the backup", ref_all);
    row("  service copy alone (CopyPackage)", our_copy);
    row("  sync of the copy's file system (FSSyncFs)", our_sync);
    row("  the same copy without progress (FSCopyPath)", plain_copy);
    row("  file layer's removal of the backup (FSRemove)", our_remove);
    row("  rm -rf of the backup", ref_remove);
    printf("ratio PrepareUserEnv / the same without sync   %.3f\n",
           Median(ours) / Median(unsynced));
    printf("ratio PrepareUserEnv / (mv + cp -r)            %.3f\n",
           Median(ours) / Median(ref_copy));
    printf("ratio PrepareUserEnv / (mv + cp -r + rm -rf)   %.3f\n", Median(ours) / Median(ref_all));
    printf("ratio CopyPackage / (mv + cp -r)               %.3f\n",
           Median(our_copy) / Median(ref_copy));
    printf("ratio CopyPackage / FSCopyPath (cost of progress) %.3f\n",
           Median(our_copy) / Median(plain_copy));
    printf("peak resident memory of the upgrading process\n");
    printf("  large package %ld KiB, small package %ld KiB, idle child %ld KiB\n", peak_large,
           peak_small, peak_idle);

    Logger::Destroy();
    Sh("rm -rf " + Quote(work));
    return 0;
}
