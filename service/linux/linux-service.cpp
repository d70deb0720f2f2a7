#include "service/linux/linux-service.h"

#include <QProcess>
#include <QString>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
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

}  // namespace

LinuxService::LinuxService() {
    timeout = 10000;
    app_path = PathUtf8("user_corvane_quarn_app_path");
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
    const std::string pidfile = PathUtf8("user_corvane_quarn_path") + "/ui.pid";
    if (!IsFileExist(pidfile, false)) {
        LOG_AT(DEBUG, kComponent, 76, "pid file '%s' does not exist, no need to terminate\n",
               pidfile.c_str());
        return;
    }
    // Only a regular file is read: opening a FIFO in its place would wait for a writer for
    // good, and a device or socket holds no pid file either. They count as unreadable.
    struct stat st;
    Config config;
    if (stat(pidfile.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || config.read(pidfile) < 0) {
        LOG_AT(NOTE, kComponent, 81, "Failed to read pid file '%s', not exist ?\n",
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

    if (kill(pid, SIGTERM) != 0) {
        const int err = errno;
        if (err == ESRCH) {
            return;  // a stale pid file: the UI is not running
        }
        LOG_AT(ERROR, kComponent, 96, "kill: %s (%d)\n", strerror(err), err);
    }
    // About five seconds for the UI to end by itself; the first probe comes right away.
    for (int pass = 0; pass < 5; ++pass) {
        if (kill(pid, 0) != 0 && errno == ESRCH) {
            return;
        }
        sleep(1);
    }
    kill(pid, SIGKILL);
}

bool LinuxService::PerUserBinPathExist() {
    // access() follows links: a dangling link to the UI counts as missing.
    return access(PathUtf8("user_corvane_quarn_ui_path").c_str(), F_OK) == 0;
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
