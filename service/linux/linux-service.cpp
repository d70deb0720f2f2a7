#include "service/linux/linux-service.h"

#include <QProcess>
#include <QString>

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include "lib/desktop/ui-path-manager.h"
#include "lib/file/file-op.h"
#include "log/log.h"
#include "service/config.h"

namespace {

const char* const kComponent = "service_debug";

// A build number as text: its leading digits, 0 when there are none or the text is empty.
int BuildNumber(const std::string& build) {
    return build.empty() ? 0 : atoi(build.c_str());
}

const int64_t kNsPerSecond = 1000000000;
// How far the times compared for the pid file may disagree for the client that wrote it: a
// process's start is counted in ticks of 1/100 s, a file's time can be coarser (whole seconds
// on some file systems) or come from a file server's clock.
const int64_t kClockSlackNs = 2 * kNsPerSecond;

int64_t Nanoseconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// When the process started, in ticks since boot: field 22 of its stat record, the 20th after
// the command name, which ends at the last ')' as the name may hold spaces and parentheses.
// -1 when the record cannot be read.
long long StartTicks(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string record;
    std::getline(file, record);
    const size_t name_end = record.rfind(')');
    if (name_end == std::string::npos)
        return -1;
    const char* field = record.c_str() + name_end + 1;
    for (int i = 0; i < 19 && field; ++i) {
        field = strchr(field + 1, ' ');
    }
    return field ? strtoll(field, nullptr, 10) : -1;
}

// The process named by the pid file, held by a pid file descriptor where the kernel has them
// (Linux 5.3 and later): its number may be freed and taken by another process during the
// stop's wait, and that one must never be signalled. Elsewhere it is held by its bare number.
class Process {
public:
    explicit Process(pid_t pid)
        : pid_(pid), fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))), held_(fd_ != -1) {
        gone_ = !held_ && errno == ESRCH;
    }
    ~Process() { close(fd_); }  // not held, it is -1, which close refuses harmlessly
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // 0, or the error number.
    int Signal(int signal) {
        const long result =
            held_ ? syscall(SYS_pidfd_send_signal, fd_, signal, nullptr, 0) : kill(pid_, signal);
        return result == 0 ? 0 : errno;
    }

    // Whether it has ended. The descriptor tells as soon as the process exits, before its
    // parent reaps it (signal 0 still reaches it until then); a bare number, once it is reaped.
    bool Ended() { return held_ ? EndsWithin(0) : gone_ || (kill(pid_, 0) != 0 && errno == ESRCH); }

    // Whether it ends within wait_ms. A bare number cannot be waited on: a signal it took is
    // trusted.
    bool EndsWithin(int wait_ms) {
        pollfd exit_event = {fd_, POLLIN, 0};
        return !held_ || poll(&exit_event, 1, wait_ms) > 0;
    }

private:
    pid_t pid_;
    int fd_;
    bool held_;  // by the descriptor fd_
    bool gone_ = false;
};

// Whether the process can have written the pid file: it ran when the file was last written,
// during this boot. Both times are put on the wall clock as it reads now: the start as the
// boot time (now less the time since boot, what /proc/stat calls btime) plus the ticks. A step
// of the wall clock (by NTP or a user) after the file was written moves the start and the
// boot but not the file's time; every doubt leaves the process alone, as an old client that
// keeps running is the lesser harm. When it cannot be the writer, one DEBUG line says why.
bool CanHaveWritten(const std::string& pidfile, pid_t pid, long long ticks, int64_t written) {
    const int64_t now = Nanoseconds(CLOCK_REALTIME);
    const int64_t boot = now - Nanoseconds(CLOCK_BOOTTIME);
    const long hz = sysconf(_SC_CLK_TCK);  // ticks * 10^9 alone would overflow after 3 years
    const int64_t started = boot + ticks / hz * kNsPerSecond + ticks % hz * kNsPerSecond / hz;
    const auto seconds = [](int64_t ns) { return static_cast<long long>(ns / kNsPerSecond); };
    if (ticks < 0) {  // its record hidden (a /proc mounted with hidepid)
        LOG_HERE(DEBUG, kComponent, "start of pid %d unknown, it is not stopped\n",
                 static_cast<int>(pid));
    } else if (written < boot + kClockSlackNs) {
        // Process numbers come out of a boot in much the same order: a pid file of an earlier
        // boot is likely to name a process of the user's new session. Every live process
        // started during this boot, so the start check below refuses it as well; this one says
        // why, and also refuses a file of the boot's first seconds, before any session.
        LOG_HERE(DEBUG, kComponent,
                 "pid file '%s' was written %llds before this boot, pid %d is not its writer\n",
                 pidfile.c_str(), seconds(boot - written), static_cast<int>(pid));
    } else if (written > now + kClockSlackNs) {
        // The wall clock went back after the file was written: no time of it can be trusted.
        LOG_HERE(DEBUG, kComponent,
                 "pid file '%s' is dated %llds ahead of the clock, pid %d is not stopped\n",
                 pidfile.c_str(), seconds(written - now), static_cast<int>(pid));
    } else if (started > written + kClockSlackNs) {
        LOG_HERE(DEBUG, kComponent,
                 "pid %d started %llds after pid file '%s' was last written, not its writer\n",
                 static_cast<int>(pid), seconds(started - written), pidfile.c_str());
    } else {
        return true;
    }
    return false;
}

}  // namespace

LinuxService::LinuxService() {
    app_path = PathUtf8(PathKey::kUserQuarnApp);
}

void LinuxService::LoadSourceVerInfo() {
    LoadSourceVersion();
}

void LinuxService::LoadTargetVerInfo() {
    LoadTargetVersion();
}

void LinuxService::PreUpgrade() {
    LoadTargetVerInfo();
    LoadSourceVerInfo();
    LOG_AT(DEBUG, kComponent, 60, "Source version: ('%s', '%s')\n",
           source_version.build_version.c_str(), source_version.icon_overlay_version.c_str());
    LOG_AT(DEBUG, kComponent, 61, "Target version: ('%s', '%s')\n",
           target_version.build_version.c_str(), target_version.icon_overlay_version.c_str());
}

void LinuxService::StopService() {
    const std::string pidfile = PathUtf8(PathKey::kUserQuarn) + "/ui.pid";
    if (!IsFileExist(pidfile, false)) {
        LOG_AT(DEBUG, kComponent, 76, "pid file '%s' does not exist, no need to terminate\n",
               pidfile.c_str());
        return;
    }
    // The time is taken before the file is read: a file rewritten in between then looks older
    // than its pid's process, which is left alone.
    int64_t written = 0;
    Config config;
    if (!FSIsRegularFile(pidfile, &written) || config.read(pidfile) < 0) {
        LOG_AT(NOTE, kComponent, 81, "Failed to read pid file '%s', not exist ?\n",
               pidfile.c_str());
        LOG_HERE(WARNING, kComponent, "old client not stopped: cannot read pid file '%s'\n",
                 pidfile.c_str());
        return;
    }
    pid_t pid = 0;
    const std::string& value = config["pid"];
    if (!value.empty()) {
        const long number = strtol(value.c_str(), nullptr, 10);
        // Cut to 32 bits, 2^32 + P would name the user's process P: a value no process id can
        // hold names no process.
        if (number > std::numeric_limits<pid_t>::max() ||
            number < std::numeric_limits<pid_t>::min()) {
            LOG_HERE(DEBUG, kComponent, "pid '%s' in '%s' is out of range, nothing to stop\n",
                     value.c_str(), pidfile.c_str());
            return;
        }
        pid = static_cast<pid_t>(number);
    }
    // 0 or a negative id would signal a whole process group (-1: every process we may signal).
    if (pid <= 0) {
        LOG_HERE(NOTE, kComponent, "pid file '%s' names no process (pid '%s'), nothing to stop\n",
                 pidfile.c_str(), value.c_str());
        return;
    }
    // A pid file left by a client of an earlier session can name an id that now belongs to
    // this launcher; stopping it would end this login's upgrade and client start.
    if (pid == getpid()) {
        LOG_HERE(NOTE, kComponent, "pid file '%s' names this launcher (pid %d), nothing to stop\n",
                 pidfile.c_str(), static_cast<int>(pid));
        return;
    }

    Process client(pid);
    const long long ticks = StartTicks(pid);
    // Alive after its start was read, it is the process held: its number was not yet free.
    if (client.Ended()) {
        return;  // a stale pid file: the UI is not running
    }
    if (!CanHaveWritten(pidfile, pid, ticks, written)) {
        LOG_HERE(WARNING, kComponent,
                 "old client not stopped: pid %d of pid file '%s' is a process that cannot "
                 "have written it\n",
                 static_cast<int>(pid), pidfile.c_str());
        return;
    }
    const int err = client.Signal(SIGTERM);
    if (err == ESRCH) {
        return;
    }
    if (err != 0) {
        LOG_AT(ERROR, kComponent, 96, "kill: %s (%d)\n", strerror(err), err);
    }
    // About five seconds for the UI to end by itself; the first probe comes right away.
    for (int pass = 0; pass < 5; ++pass) {
        if (client.Ended()) {
            return;
        }
        sleep(1);
    }
    // A killed process is gone in a moment; one still there a second later is stuck in the
    // kernel, or was never ours to kill.
    const int kill_err = client.Signal(SIGKILL);
    if (kill_err != ESRCH && (kill_err != 0 || !client.EndsWithin(1000))) {
        LOG_HERE(WARNING, kComponent,
                 "old client not stopped: pid %d of pid file '%s' still runs after SIGKILL\n",
                 static_cast<int>(pid), pidfile.c_str());
    }
}

bool LinuxService::PerUserBinPathExist() {
    // access() follows links: a dangling link to the UI counts as missing.
    return access(PathUtf8(PathKey::kUserQuarnUi).c_str(), F_OK) == 0;
}

bool LinuxService::IsNeedUpgrade() {
    const int source = BuildNumber(source_version.build_version);
    const int target = BuildNumber(target_version.build_version);
    LOG_AT(DEBUG, kComponent, 129, "source version = %d, target version = %d\n", source, target);
    bool need = target > source;
    // A missing UI executable forces a reinstallation even at equal or newer builds.
    if (!PerUserBinPathExist()) {
        need = true;
    }
    return need;
}

int LinuxService::HandlePackageUpgrade() {
    if (PerUserBinPathExist()) {
        LOG_AT(DEBUG, kComponent, 143, "local appdata exist\n");
        StopService();
    }
    return PrepareUserEnv();
}

void LinuxService::PostUpgrade() {
    LaunchPerUserBin();
}

int LinuxService::LaunchPerUserBin() {
    const std::string command = app_path + "/package/start-stop start";
    // The launcher runs the start script through the one-string form, which Qt 5.15 marks
    // deprecated. Its result changes nothing, but a client that does not start must leave a
    // trace at the default level: -2 is a script that could not be run (missing, not
    // executable, or a path split at a space), -1 one that crashed.
#if QT_VERSION_MAJOR >= 6
    // Qt 6 has only the program-and-arguments form: the string is split as the one-string
    // form splits it, and nothing to run is -2 there too.
    QStringList arguments = QProcess::splitCommand(QString::fromUtf8(command.c_str()));
    const int status =
        arguments.isEmpty() ? -2 : QProcess::execute(arguments.takeFirst(), arguments);
#else
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const int status = QProcess::execute(QString::fromUtf8(command.c_str()));
#pragma GCC diagnostic pop
#endif
    if (status == -2) {
        LOG_HERE(WARNING, kComponent,
                 "cannot run the client's start script: '%s' (exit status %d)\n", command.c_str(),
                 status);
    } else if (status != 0) {
        LOG_HERE(WARNING, kComponent, "the client's start script failed: '%s' (exit status %d)\n",
                 command.c_str(), status);
    }
    return 0;
}
