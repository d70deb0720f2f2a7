// Helpers shared by the tests; the headers most tests need come with them.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// A fresh folder under base, removed with everything in it when the object goes.
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

// Whole files; WriteFile makes missing parent folders. RemoveTree also clears what a test
// made read-only or unsearchable.
bool WriteFile(const std::string& path, const std::string& contents);
std::string ReadFile(const std::string& path);
bool MakeDirs(const std::string& path);
void RemoveTree(const std::string& path);

// Runs fn in a forked child and returns its result as the child's exit status (0..255), or -1
// when the child did not start or exit. RunAsUnprivileged's child first drops to user and group
// 65534 (254 when it cannot): the suite runs as root, and permission failures must be tested.
int RunInChild(const std::function<int()>& fn);
int RunAsUnprivileged(const std::function<int()>& fn);

}  // namespace testsupport
