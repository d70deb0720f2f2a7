#pragma once

#include <functional>
#include <string>

namespace testsupport {

// A fresh folder under /tmp, removed with everything in it when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& base = "/tmp");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Whole-file helpers; WriteFile makes missing parent folders.
bool WriteFile(const std::string& path, const std::string& contents);
std::string ReadFile(const std::string& path);
bool MakeDirs(const std::string& path);
void RemoveTree(const std::string& path);

// Runs fn in a forked child that has dropped to the unprivileged user and group 65534,
// and returns fn's result as the child's exit status (0..255), or -1 if the child could
// not be started or did not exit normally. Tests of permission failures use it because
// the suite runs as root.
int RunAsUnprivileged(const std::function<int()>& fn);

// Runs fn in a forked child (same user) and returns its exit status as above.
int RunInChild(const std::function<int()>& fn);

}  // namespace testsupport
