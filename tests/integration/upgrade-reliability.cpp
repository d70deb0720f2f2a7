// Reliability of the upgrade under a hard kill.
//
// Each trial puts an old copy (build 120) in a fresh home, starts the upgrade to the package
// (build 121) in a child process, kills that child with SIGKILL after a random delay, notes
// where the kill landed, then runs the upgrade once more to its end, and looks at what the user
// has: the complete new package, the complete old copy or a mixture, and whether backup folders
// are left. The upgrade run is the worker's sequence without the final start of the client:
// versions, decision, stop of the client, installation, removal of aged folders.
//
//   upgrade-reliability [--trials N] [--seed S] [--base DIR] [--keep]
//
// --base chooses the file system the trials run on (default /tmp): the order in which the copy
// visits the package's entries is the folder listing's, and differs between file systems.
//
// Exit status 1 when a trial ends in a state the installation must never leave: no copy at
// all, the old copy still in place after a full second run, or a run that failed.

#include <dirent.h>
#include <signal.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/linux/linux-service.h"
#include "tests/unit/user-paths.h"

namespace {

using servicetest::Snapshot;
using servicetest::TreeSnapshot;
using Clock = std::chrono::steady_clock;

// Where the kill landed, read from the disk right after it.
enum Phase {
    kBeforeBackup,    // the old copy still in place, no backup
    kBackupNoCopy,    // the old copy aside, no new copy started
    kDuringCopy,      // the old copy aside, the new copy partly written
    kRemovingBackup,  // the new copy complete, a backup (maybe partly removed) still there
    kFinished,        // the upgrade had ended before the kill
    kOddState,        // anything else: must not happen
    kPhases
};
const char* const kPhaseNames[kPhases] = {
    "before the old copy was moved aside",
    "old copy aside, new copy not begun",
    "new copy partly written",
    "new copy complete, backup being removed",
    "upgrade already finished",
    "unexpected state",
};

enum Outcome { kNew, kOld, kMixture, kMissing, kOutcomes };
const char* const kOutcomeNames[kOutcomes] = {"complete new", "complete old", "mixture", "no copy"};

struct Cell {
    int trials = 0;
    int with_backups = 0;
};

std::string g_app;

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> BackupNames() {
    std::vector<std::string> names{g_app + "_tmp"};
    for (int n = 1; n <= 9; ++n) {
        names.push_back(g_app + "_tmp" + std::to_string(n));
    }
    return names;
}

bool BackupsLeft() {
    for (const std::string& name : BackupNames()) {
        if (Exists(name)) {
            return true;
        }
    }
    return false;
}

int Run(const std::string& command) {
    const int rc = system(command.c_str());
    if (rc != 0) {
        fprintf(stderr, "command failed (%d): %s\n", rc, command.c_str());
    }
    return rc;
}

// A deterministic payload that differs between the builds (files changed, added and dropped),
// spread over top-level folders like a real client package, so that the copy visits some of
// them before and some after the INFO file and the UI executable.
bool AddPayload(const std::string& package, int build, int files) {
    static const char* const kFolders[] = {"lib", "plugins", "resources", "share/payload",
                                           "translations"};
    std::mt19937 rng(static_cast<unsigned>(build));
    for (int i = 0; i < files; ++i) {
        if ((build == 120 && i % 10 == 9) || (build != 120 && i % 10 == 8)) {
            continue;  // present in only one of the builds
        }
        const std::string path = package + "/" + kFolders[i % 5] + "/d" + std::to_string(i % 4) +
                                 "/f" + std::to_string(i) + ".dat";
        std::string data(4096 + rng() % 40960, '\0');
        for (size_t k = 0; k < data.size(); k += 7) {
            data[k] = static_cast<char>(rng());
        }
        data += "build " + std::to_string(build) + "\n";
        if (!testsupport::WriteFile(path, data)) {
            return false;
        }
    }
    return true;
}

// The package's top-level entries in the order the copy visits them (the folder's listing).
std::vector<std::string> TopLevelOrder(const std::string& package) {
    std::vector<std::string> order;
    DIR* dir = opendir(package.c_str());
    while (dir) {
        const dirent* entry = readdir(dir);
        if (!entry) {
            break;
        }
        if (strcmp(entry->d_name, ".") && strcmp(entry->d_name, "..")) {
            order.push_back(entry->d_name);
        }
    }
    if (dir) {
        closedir(dir);
    }
    return order;
}

// The worker's upgrade sequence, without starting the client.
int UpgradeOnce() {
    LinuxService service;
    service.PreUpgrade();
    int rc = 0;
    if (service.IsNeedUpgrade()) {
        rc = service.HandlePackageUpgrade();
    }
    service.RemoveAgedFolders();
    return rc;
}

// Runs the upgrade in a child. With a delay, the kernel kills the child with SIGKILL after that
// many microseconds of wall time from the start of the upgrade (a timer of the child's own, so
// the moment depends neither on the cost of starting the child nor on when this process gets
// the processor back). Returns the child's wait status; `took_us`, when given, receives how
// long the upgrade itself ran.
int UpgradeInChild(long kill_after_us, double* took_us = nullptr) {
    int report[2];
    if (pipe(report) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(report[0]);
        if (kill_after_us >= 0) {
            sigevent event{};
            event.sigev_notify = SIGEV_SIGNAL;
            event.sigev_signo = SIGKILL;
            timer_t timer;
            itimerspec when{};
            when.it_value.tv_sec = kill_after_us / 1000000;
            when.it_value.tv_nsec = (kill_after_us % 1000000) * 1000 + 1;
            if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
                timer_settime(timer, 0, &when, nullptr) != 0) {
                _exit(4);
            }
        }
        const Clock::time_point start = Clock::now();
        const int rc = UpgradeOnce();
        const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
        if (write(report[1], &us, sizeof(us)) != sizeof(us)) {
            _exit(5);
        }
        _exit(rc == 0 ? 0 : 3);
    }
    close(report[1]);
    double us = 0;
    if (read(report[0], &us, sizeof(us)) == sizeof(us) && took_us) {
        *took_us = us;
    }
    close(report[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    int trials = 50;
    unsigned seed = 1;
    bool keep = false;
    std::string base = "/tmp";
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--trials") && i + 1 < argc) {
            trials = atoi(argv[++i]);
        } else if (!strcmp(argv[i], "--seed") && i + 1 < argc) {
            seed = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
        } else if (!strcmp(argv[i], "--base") && i + 1 < argc) {
            base = argv[++i];
        } else if (!strcmp(argv[i], "--keep")) {
            keep = true;
        } else {
            fprintf(stderr, "usage: %s [--trials N] [--seed S] [--base DIR] [--keep]\n", argv[0]);
            return 2;
        }
    }

    std::string work = base + "/upgrade-reliability-XXXXXX";
    if (!mkdtemp(&work[0])) {
        perror("mkdtemp");
        return 2;
    }
    const std::string root = work + "/opt/CorvaneQuarn";
    const std::string old_root = work + "/old";
    const std::string home = work + "/home";
    const std::string script = std::string(LAUNCHER_SOURCE_DIR) + "/scripts/make-sample-install";
    const int kPayloadFiles = 300;
    if (Run("'" + script + "' '" + root + "' 121") != 0 ||
        Run("'" + script + "' '" + old_root + "' 120") != 0 ||
        !AddPayload(root + "/package/nimbrel", 121, kPayloadFiles) ||
        !AddPayload(old_root + "/package/nimbrel", 120, kPayloadFiles)) {
        return 2;
    }

    // The path table as the launcher fills it, for a HOME inside the work folder.
    setenv("HOME", home.c_str(), 1);
    unsetenv("XDG_CURRENT_DESKTOP");
    servicetest::FillPathTable(root + "/bin");
    UIPathManager* table = UIPathManager::getInstance();
    g_app = table->getPath("user_corvane_quarn_app_path").toStdString();

    testsupport::WriteFile(work + "/launcher.debug", "service_debug = 7\n");
    Logger::Initialize(Logger::TYPE_FILE, work + "/launcher.log", work + "/launcher.debug", 50,
                       Logger::SCOPE_THREAD);

    const TreeSnapshot new_tree = Snapshot(root + "/package/nimbrel");
    const TreeSnapshot old_tree = Snapshot(old_root + "/package/nimbrel");
    const std::string reset = "rm -rf '" + home + "' && mkdir -p '" + home +
                              "/.CorvaneQuarn' && cp -a '" + old_root + "/package/nimbrel' '" +
                              g_app + "'";

    // How long one whole upgrade takes: the kills are spread over a little more than that.
    std::vector<double> runs;
    for (int i = 0; i < 5; ++i) {
        if (Run(reset) != 0) {
            return 2;
        }
        double took_us = 0;
        if (UpgradeInChild(-1, &took_us) != 0 || Snapshot(g_app) != new_tree) {
            fprintf(stderr, "an uninterrupted upgrade did not install the package\n");
            return 2;
        }
        runs.push_back(took_us);
    }
    // The quickest run: slower ones carry cold caches or a busy machine.
    const double full_us = *std::min_element(runs.begin(), runs.end());

    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> moment(0.0, 1.15 * full_us);
    Cell table_cells[kPhases][kOutcomes];
    int failures = 0;
    for (int t = 0; t < trials; ++t) {
        if (Run(reset) != 0) {
            return 2;
        }
        UpgradeInChild(static_cast<long>(moment(rng)));

        const TreeSnapshot killed = Snapshot(g_app);
        const bool app_new = killed == new_tree;
        const bool app_old = killed == old_tree;
        const bool backups = BackupsLeft();
        const bool backup_old = Snapshot(g_app + "_tmp") == old_tree;
        Phase phase = kOddState;
        if (app_old && !backups) {
            phase = kBeforeBackup;
        } else if (!Exists(g_app) && backup_old) {
            phase = kBackupNoCopy;
        } else if (!app_new && !app_old && backup_old) {
            phase = kDuringCopy;
        } else if (app_new && backups) {
            phase = kRemovingBackup;
        } else if (app_new && !backups) {
            phase = kFinished;
        }

        const int second = UpgradeInChild(-1);
        const TreeSnapshot after = Snapshot(g_app);
        Outcome outcome = after == new_tree   ? kNew
                          : after == old_tree ? kOld
                          : after.empty()     ? kMissing
                                              : kMixture;
        const bool left = BackupsLeft();
        Cell& cell = table_cells[phase][outcome];
        cell.trials++;
        cell.with_backups += left ? 1 : 0;
        if (outcome == kMissing || outcome == kOld || phase == kOddState || !WIFEXITED(second) ||
            WEXITSTATUS(second) != 0) {
            ++failures;
            fprintf(stderr, "trial %d: phase '%s', outcome '%s', second run status %d\n", t,
                    kPhaseNames[phase], kOutcomeNames[outcome], second);
        }
    }

    printf("Upgrade killed with SIGKILL at a random moment, then run again to its end\n");
    printf("trials %d, seed %u, package %d entries, one whole upgrade %.1f ms\n", trials, seed,
           static_cast<int>(new_tree.size()), full_us / 1000.0);
    const std::vector<std::string> order = TopLevelOrder(root + "/package/nimbrel");
    std::string listing, after_decision;
    size_t decided_at = 0;  // past the INFO file and the UI's folder
    for (size_t i = 0; i < order.size(); ++i) {
        listing += (i ? ", " : "") + order[i];
        if (order[i] == "INFO" || order[i] == "bin") {
            decided_at = i;
        }
    }
    for (size_t i = decided_at + 1; i < order.size(); ++i) {
        after_decision += (after_decision.empty() ? "" : ", ") + order[i];
    }
    printf("top-level entries in copy order: %s\n\n", listing.c_str());
    printf("%-42s %7s | %-22s %-22s %-22s %-22s\n", "where the kill landed", "trials",
           "complete new (backups)", "complete old (backups)", "mixture (backups)",
           "no copy (backups)");
    Cell totals[kOutcomes];
    int seen_phase[kPhases] = {};
    for (int p = 0; p < kPhases; ++p) {
        int n = 0;
        for (int o = 0; o < kOutcomes; ++o) {
            n += table_cells[p][o].trials;
        }
        seen_phase[p] = n;
        if (n == 0) {
            continue;
        }
        printf("%-42s %7d |", kPhaseNames[p], n);
        for (int o = 0; o < kOutcomes; ++o) {
            const Cell& c = table_cells[p][o];
            printf(" %-22s",
                   (std::to_string(c.trials) + " (" + std::to_string(c.with_backups) + " left)")
                       .c_str());
            totals[o].trials += c.trials;
            totals[o].with_backups += c.with_backups;
        }
        printf("\n");
    }
    printf("%-42s %7d |", "all trials", trials);
    for (int o = 0; o < kOutcomes; ++o) {
        printf(" %-22s", (std::to_string(totals[o].trials) + " (" +
                          std::to_string(totals[o].with_backups) + " left)")
                             .c_str());
    }
    printf("\n\nWhat each kind means:\n");
    if (seen_phase[kBeforeBackup]) {
        printf(
            "- killed before the old copy was moved aside: the old copy is untouched; the "
            "next run upgrades it normally.\n");
    }
    if (seen_phase[kBackupNoCopy]) {
        printf(
            "- killed between moving the old copy aside and copying: the user has no copy, "
            "only the \"_tmp\" backup; the next run finds no INFO (build 0) and no UI, "
            "installs afresh and removes the stale \"_tmp\".\n");
    }
    if (seen_phase[kDuringCopy]) {
        printf(
            "- killed during the copy: a partial new copy sits beside the \"_tmp\" backup "
            "and nothing rolls back. When the partial copy lacks its INFO or its UI "
            "executable, the next run moves it to \"_tmp1\", installs the package and removes "
            "both backups: complete new.\n");
    }
    printf(
        "- mixture (%d seen): the kill came during the copy after the partial copy already "
        "held its INFO and its UI executable (even a partly written one). The decision reads "
        "only the build and the UI's presence, so the next run sees nothing to do: the user "
        "keeps a copy that lacks files of the package, and the old copy stays behind in "
        "\"_tmp\" until a later package raises the build. With the copy order above, that "
        "window is the copy of %s.\n",
        totals[kMixture].trials,
        after_decision.empty() ? "the UI executable itself (its folder comes last)"
                               : ("the last entries (" + after_decision + ")").c_str());
    if (seen_phase[kRemovingBackup]) {
        printf(
            "- killed while the backup was being removed: the new copy is complete; the "
            "next run needs no upgrade, so the (partly removed) backup stays until the next "
            "upgrade removes it.\n");
    }
    if (seen_phase[kFinished]) {
        printf("- killed after the upgrade had finished: nothing to repair.\n");
    }
    if (seen_phase[kOddState]) {
        printf("- unexpected state after the kill: see the trial lines on standard error.\n");
    }

    if (!keep) {
        Logger::Destroy();
        testsupport::RemoveTree(work);
    } else {
        printf("\nwork folder kept: %s\n", work.c_str());
    }
    printf("\ntrials that ended in an allowed state: %d of %d\n", trials - failures, trials);
    return failures == 0 ? 0 : 1;
}
