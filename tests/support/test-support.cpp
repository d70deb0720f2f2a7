#include "tests/support/test-support.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testsupport {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& base) {
    std::string pattern = base + "/lq-test-XXXXXX";
    path_ = mkdtemp(pattern.data()) ? pattern : "";
}

TempDir::~TempDir() {
    if (!path_.empty())
        RemoveTree(path_);
}

bool WriteFile(const std::string& path, const std::string& contents) {
    MakeDirs(fs::path(path).parent_path());
    return static_cast<bool>(std::ofstream(path, std::ios::binary) << contents);
}

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool MakeDirs(const std::string& path) {
    std::error_code ec;
    fs::create_directories(path, ec);
    return !ec;
}

void RemoveTree(const std::string& path) {
    std::error_code ec;
    chmod(path.c_str(), 0755);
    for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            chmod(it->path().c_str(), 0755);
    }
    fs::remove_all(path, ec);
}

int RunInChild(const std::function<int()>& fn) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(fn() & 0xff);
    int status = -1;  // no exit status, should waitpid fail
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunAsUnprivileged(const std::function<int()>& fn) {
    return RunInChild(
        [&fn] { return setgroups(0, nullptr) || setgid(65534) || setuid(65534) ? 254 : fn(); });
}

}  // namespace testsupport
