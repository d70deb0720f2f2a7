#include "tests/support/test-support.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testsupport {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& base) {
    std::string pattern = base + "/lq-test-XXXXXX";
    char* made = mkdtemp(pattern.data());
    path_ = made ? made : "";
}

TempDir::~TempDir() {
    if (!path_.empty())
        RemoveTree(path_);
}

bool WriteFile(const std::string& path, const std::string& contents) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool MakeDirs(const std::string& path) {
    std::error_code ec;
    fs::create_directories(path, ec);
    return !ec;
}

void RemoveTree(const std::string& path) {
    // Folders a test made read-only or unsearchable must not block the clean-up.
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(
             path, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            chmod(it->path().c_str(), 0755);
    }
    chmod(path.c_str(), 0755);
    fs::remove_all(path, ec);
}

static int WaitForChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunInChild(const std::function<int()>& fn) {
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0)
        _exit(fn() & 0xff);
    return WaitForChild(pid);
}

int RunAsUnprivileged(const std::function<int()>& fn) {
    return RunInChild([&fn]() {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            return 254;
        return fn();
    });
}

}  // namespace testsupport
