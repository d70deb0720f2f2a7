#pragma once

#include <pthread.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <unordered_map>

// Process-wide diagnostic log: per-component levels, four sinks, size rotation.
class Logger {
public:
    enum Level { ERROR = 3, WARNING = 4, NOTE = 5, INFO = 6, DEBUG = 7 };
    enum Type { TYPE_SYSLOG = 0, TYPE_STDOUT = 1, TYPE_STDERR = 2, TYPE_FILE = 3 };
    enum SafetyScope { SCOPE_NONE = 0, SCOPE_THREAD = 1, SCOPE_PROCESS = 2 };
    enum ConfigFlag { FLAG_NEWLINE = 2, FLAG_ERRNO = 4 };
    struct InitConfig {
        Type type = TYPE_STDOUT;
        std::string log_path;
        std::string level_config_path;
        int rotate_count = 50;
        SafetyScope safety_scope = SCOPE_THREAD;
    };

    static int Initialize(const InitConfig& config);
    static int Initialize(Type type, const std::string& log_path,
                          const std::string& level_config_path, int rotate_count,
                          SafetyScope safety_scope);
    static void Destroy();
    static bool IsNeedToLog(Level level, const std::string& component);
    static int GetCompLevel(const std::string& component);
    static void LogMsg(Level level, const std::string& component, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogMsg2(Level level, const std::string& component, const char* format,
                        va_list args);
    static void LogMsg3(Level level, const std::string& component, std::stringstream& message,
                        ConfigFlag flags);

private:
    // The internal operations and members below keep their published names, also those with
    // little left to do (InitializeFileLock, log_flock: there is no lock across processes).
    static int InitializeLock();
    static void DestroyLock();
    static void Lock();
    static void Unlock();
    static int InitializeFileLock();
    static int InitializeSharedData();
    static void DestroySharedData();
    static void ReloadLogFile();
    static int Rotate();
    static int RotateIfFileBig(int written);
    static int GetFileSize(const std::string& path);
    static int PrintToFilePointer(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static int PrintToFilePointerV(const char* format, va_list args);
    static int FlushFileStream(int written);

    static bool log_initialized;
    static int log_flock;
    static InitConfig config;
    static FILE* log_fp;
    static std::string log_path;
    static int32_t log_size;                    // characters in the live file; -1 for streams
    static uint64_t log_rotated_count_shared;   // rotations seen by every writer
    static uint64_t log_rotated_count_private;  // rotations this writer has caught up with
    static pthread_mutex_t log_lock;
    static bool log_lock_used;  // the writers take log_lock (the safety scope asks for it)
    static std::unordered_map<std::string, int> log_level;
};

extern "C" void LogMSG_c(int level, const char* component, const char* format, va_list args);

#include <unistd.h>

// Base name of a source path, worked out at compile time ("x/y/file-op.cpp" -> "file-op.cpp").
constexpr const char* LogBaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p; ++p) {
        if (*p == '/')
            base = p + 1;
    }
    return base;
}

// The one way every module writes a line: ask the level table first, format only then.
// LEVEL is ERROR, WARNING, NOTE, INFO or DEBUG; its name is also the line's tag. The line
// number is part of the output, so a call site may give a fixed one.
#define LOG_AT(LEVEL, component, line, fmt, ...)                                                  \
    do {                                                                                          \
        if (Logger::IsNeedToLog(Logger::LEVEL, component)) {                                      \
            Logger::LogMsg(Logger::LEVEL, component, "(%5d:%5d) [" #LEVEL "] %s(%d): " fmt,       \
                           static_cast<int>(getpid()), static_cast<int>(pthread_self() % 100000), \
                           LogBaseName(__FILE__), static_cast<int>(line), ##__VA_ARGS__);         \
        }                                                                                         \
    } while (0)

#define LOG_HERE(LEVEL, component, fmt, ...) LOG_AT(LEVEL, component, __LINE__, fmt, ##__VA_ARGS__)
