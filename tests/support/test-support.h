// Helpers shared by the tests; the headers most tests need come with them.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

namespace fs = std::filesystem;

// A fresh folder under base, removed with all it holds (as root: read-only parts go too).
class TempDir {
public:
    explicit TempDir(const std::string& base = "/tmp") : path_(base + "/lq-test-XXXXXX") {
        path_ = mkdtemp(path_.data()) ? path_ : "";
    }
    ~TempDir() { fs::remove_all(path_, error_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
    std::error_code error_;
};

inline bool MakeDirs(const std::string& path) {
    std::error_code ec;
    fs::create_directories(path, ec);
    return !ec;
}

// Whole files; missing parent folders are made.
inline bool WriteFile(const std::string& path, const std::string& contents) {
    MakeDirs(fs::path(path).parent_path());
    return static_cast<bool>(std::ofstream(path, std::ios::binary) << contents);
}

inline std::string ReadFile(const std::string& path) {  // "" for a folder or a missing file
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Runs fn in a forked child that first drops to user and group 65534 (254 when it cannot): the
// suite runs as root, and permission failures must be tested. Returns fn's result as the
// child's exit status (0..255), or -1 when the child did not start or exit.
inline int RunAsUnprivileged(const std::function<int()>& fn) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit((setgroups(0, nullptr) || setgid(65534) || setuid(65534) ? 254 : fn()) & 0xff);
    int status = -1;  // no exit status, should waitpid fail
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace testsupport
