#include "log/log.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "service/config.h"

namespace {

// The live file is rotated once the characters written to it pass 5 MiB.
constexpr int64_t kRotateSize = 5242880;
constexpr int kPathBuffer = 1024;

// Name of the i-th rotated file: the live path, '_', the index.
std::string RotatedName(const std::string& path, int index) {
    char name[kPathBuffer];
    snprintf(name, sizeof(name), "%s_%d", path.c_str(), index);
    return name;
}

// The standard streams belong to the process, never to the logger: only files it opened
// itself are closed.
void CloseLogStream(FILE* fp) {
    if (fp && fp != stdout && fp != stderr)
        fclose(fp);
}

// O_CLOEXEC, so the client the launcher starts does not inherit the log file.
FILE* OpenForAppend(const std::string& path) {
    return fopen(path.c_str(), "ae");
}

}  // namespace

// Before Initialize the logger already accepts ERROR and WARNING lines and writes them,
// time-stamped, to standard error.
bool Logger::log_initialized = true;
int Logger::log_flock = -1;
Logger::InitConfig Logger::config;
FILE* Logger::log_fp = stderr;
std::string Logger::log_path;
int32_t Logger::log_size = 0;
uint64_t Logger::log_rotated_count_shared = 0;
uint64_t Logger::log_rotated_count_private = 0;
pthread_mutex_t Logger::log_lock = PTHREAD_MUTEX_INITIALIZER;
bool Logger::log_lock_used = false;
std::unordered_map<std::string, int> Logger::log_level;

int Logger::Initialize(Type type, const std::string& log_path, const std::string& level_config_path,
                       int rotate_count, SafetyScope safety_scope) {
    InitConfig cfg;
    cfg.type = type;
    cfg.log_path = log_path;
    cfg.level_config_path = level_config_path;
    cfg.rotate_count = rotate_count;
    cfg.safety_scope = safety_scope;
    return Initialize(cfg);
}

int Logger::Initialize(const InitConfig& cfg) {
    Destroy();

    config = cfg;
    log_path = cfg.log_path;
    // Only a file can be rotated under a writer's feet; streams need no lock.
    if (config.type != TYPE_FILE)
        config.safety_scope = SCOPE_NONE;

    InitializeLock();
    InitializeSharedData();

    log_level["default_component"] = WARNING;

    if (!config.level_config_path.empty()) {
        // A missing or malformed level file simply leaves the defaults in place.
        Config levels;
        levels.read(config.level_config_path);
        for (const auto& entry : levels.values) {
            std::istringstream text(entry.second);
            int level = 0;
            if (!(text >> level))
                level = 0;
            log_level[entry.first] = level;
        }
    }

    switch (config.type) {
        case TYPE_SYSLOG:
        case TYPE_STDOUT:
        case TYPE_STDERR:
            log_fp = config.type == TYPE_SYSLOG   ? nullptr
                     : config.type == TYPE_STDOUT ? stdout
                                                  : stderr;
            log_path.clear();
            log_size = -1;
            log_rotated_count_shared = 0;
            log_rotated_count_private = 0;
            log_initialized = true;
            return 0;
        default:
            break;
    }

    if (log_path.empty())
        return -1;
    FILE* fp = OpenForAppend(log_path);
    if (!fp)
        return -1;
    log_fp = fp;
    log_rotated_count_shared = 0;
    log_rotated_count_private = 0;
    log_size = GetFileSize(log_path);
    log_initialized = true;
    return 0;
}

void Logger::Destroy() {
    log_initialized = false;
    if (config.type == TYPE_FILE) {
        CloseLogStream(log_fp);
        config.type = TYPE_STDERR;
        log_fp = stdout;
        log_path.clear();
        config.rotate_count = 32;
    }
    DestroySharedData();
    DestroyLock();
}

bool Logger::IsNeedToLog(Level level, const std::string& component) {
    if (!log_initialized)
        return false;
    return level <= GetCompLevel(component);
}

int Logger::GetCompLevel(const std::string& component) {
    auto it = log_level.find(component);
    return it == log_level.end() ? WARNING : it->second;
}

void Logger::LogMsg(Level level, const std::string& component, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogMsg2(level, component, format, args);
    va_end(args);
}

void Logger::LogMsg2(Level level, const std::string& component, const char* format, va_list args) {
    if (!log_initialized)
        return;
    if (level > GetCompLevel(component))
        return;
    // Callers log a failure and then report errno; "%m" must see the caller's value too.
    const int saved_errno = errno;

    Lock();
    // The stream is checked under the lock: another thread may be rotating the file.
    if (config.type != TYPE_SYSLOG && !log_fp) {
        Unlock();
        errno = saved_errno;
        return;
    }
    ReloadLogFile();
    errno = saved_errno;
    switch (config.type) {
        case TYPE_SYSLOG:
            // One priority for every line: the level only decides whether it is written.
            vsyslog(LOG_ERR, format, args);
            RotateIfFileBig(0);
            break;
        case TYPE_STDOUT:
        case TYPE_STDERR:
        case TYPE_FILE:
            RotateIfFileBig(PrintToFilePointerV(format, args));
            break;
        default:
            vfprintf(stderr, format, args);
            RotateIfFileBig(0);
            break;
    }
    Unlock();
    errno = saved_errno;
}

void Logger::LogMsg3(Level level, const std::string& component, std::stringstream& message,
                     ConfigFlag flags) {
    const int saved_errno = errno;
    std::string format = "%s";
    if ((flags & FLAG_ERRNO) && saved_errno != 0) {
        // After whatever the stream holds, also when it was made from a string.
        message.seekp(0, std::ios_base::end);
        message << ", err=" << saved_errno << ":";
        format += "%m";
    }
    if (flags & FLAG_NEWLINE)
        format += "\n";
    const std::string text = message.str();
    errno = saved_errno;
    LogMsg(level, component, format.c_str(), text.c_str());
}

extern "C" void LogMSG_c(int level, const char* component, const char* format, va_list args) {
    Logger::LogMsg2(static_cast<Logger::Level>(level), std::string(component ? component : ""),
                    format, args);
}

int Logger::PrintToFilePointer(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int written = PrintToFilePointerV(format, args);
    va_end(args);
    return written;
}

int Logger::PrintToFilePointerV(const char* format, va_list args) {
    if (!log_fp)
        return 0;
    const int saved_errno = errno;
    char stamp[512];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S ", &local);

    int head = fprintf(log_fp, "%s", stamp);
    errno = saved_errno;  // the time zone look-up may have touched it; "%m" wants the caller's
    int body = vfprintf(log_fp, format, args);
    if (head < 0 || body < 0) {
        FlushFileStream(0);
        return -1;
    }
    // Counted as handed over even when the flush fails: the size check then errs towards an
    // early rotation, never towards an endless file.
    FlushFileStream(head + body);
    return head + body;
}

int Logger::FlushFileStream(int written) {
    // Every line reaches the file at once, so a crash loses no completed line.
    if (log_fp && fflush(log_fp) != 0)
        return -1;
    return written;
}

int Logger::RotateIfFileBig(int written) {
    if (config.type != TYPE_FILE || written < 0)
        return 0;
    // Counted, not re-read: a stat per line would cost more than the line itself.
    const int64_t size = static_cast<int64_t>(log_size) + written;
    log_size = static_cast<int32_t>(size);
    if (size <= kRotateSize)
        return 0;
    int rc = Rotate();
    log_size = 0;
    return rc;
}

int Logger::Rotate() {
    const int count = config.rotate_count;
    for (int i = count - 2; i >= 0; --i) {
        rename(RotatedName(log_path, i).c_str(), RotatedName(log_path, i + 1).c_str());
    }
    // This drops the file just moved into the last slot: path_0 .. path_(count-2) survive.
    remove(RotatedName(log_path, count - 1).c_str());

    CloseLogStream(log_fp);
    log_fp = nullptr;
    if (rename(log_path.c_str(), RotatedName(log_path, 0).c_str()) != 0)
        return -1;
    FILE* fp = OpenForAppend(log_path);
    if (!fp)
        return -1;
    log_fp = fp;
    ++log_rotated_count_shared;
    ++log_rotated_count_private;
    return 0;
}

void Logger::ReloadLogFile() {
    if (config.type != TYPE_FILE || config.safety_scope < SCOPE_PROCESS)
        return;
    if (log_rotated_count_shared == log_rotated_count_private)
        return;
    // Another writer rotated the file: follow it to the new live file.
    CloseLogStream(log_fp);
    log_fp = OpenForAppend(log_path);
    if (!log_fp)
        return;
    log_size = GetFileSize(log_path);
    log_rotated_count_private = log_rotated_count_shared;
}

int Logger::GetFileSize(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        int err = errno;
        PrintToFilePointer("stat(%s): %s (%d)\n", path.c_str(), strerror(err), err);
        return 0;
    }
    return static_cast<int32_t>(info.st_size);
}

int Logger::InitializeFileLock() {
    // Reserved for a lock shared between processes; one process's mutex is all we need.
    return 0;
}

int Logger::InitializeLock() {
    InitializeFileLock();
    if (config.safety_scope >= SCOPE_THREAD)
        log_lock_used = true;
    return 0;
}

void Logger::DestroyLock() {
    log_lock_used = false;
}

void Logger::Lock() {
    if (log_lock_used)
        pthread_mutex_lock(&log_lock);
}

void Logger::Unlock() {
    if (log_lock_used)
        pthread_mutex_unlock(&log_lock);
}

// The counters are plain members; a fresh configuration starts them at 0.
int Logger::InitializeSharedData() {
    log_size = 0;
    log_rotated_count_shared = 0;
    return 0;
}

void Logger::DestroySharedData() {
    log_size = 0;
    log_rotated_count_shared = 0;
}
