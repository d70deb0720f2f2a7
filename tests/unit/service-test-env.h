#pragma once
// Set-up of the upgrade service tests and driver: a temporary HOME, the path table filled as the
// launcher fills it, the sample installation, a real log file, tree manifests.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/linux/linux-service.h"
#include "tests/support/test-support.h"

namespace servicetest {

namespace fs = std::filesystem;
using testsupport::ReadFile;
using testsupport::WriteFile;
using TreeSnapshot = std::map<std::string, std::string>;  // path -> mode, digest of bytes or target

inline TreeSnapshot Snapshot(const std::string& root) {
    TreeSnapshot tree;
    std::error_code ec, no;
    struct stat st;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string p = it->path();
        lstat(p.c_str(), &st);
        const std::string bytes =
            S_ISREG(st.st_mode) ? ReadFile(p) : fs::read_symlink(p, no).string();
        tree[p.substr(root.size())] =
            std::to_string(st.st_mode) + ":" + std::to_string(std::hash<std::string>{}(bytes));
    }
    return tree;
}

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("HOME", home.c_str(), 1);
        unsetenv("XDG_CURRENT_DESKTOP");
        unsetenv("XDG_DATA_HOME");
        FillQuarnPathTable(&Service::GetUserInstallPath, QString::fromStdString(root + "/bin"));
        ASSERT_TRUE(WriteFile(base / "debug", "service_debug = 7\nfile_op_debug = 7\n"));
        Logger::Initialize(Logger::TYPE_FILE, base / "log", base / "debug", 50,
                           Logger::SCOPE_THREAD);
    }
    void TearDown() override { Logger::Destroy(); }

    // The sample installation at build 121; with old, over an old copy (build 120 with a file of
    // its own), else with no user folder.
    void Install(bool old) {
        setenv("R", root.c_str(), 1), setenv("Q", quarn.c_str(), 1), setenv("A", app.c_str(), 1);
        ASSERT_EQ(system((std::string("m=" LAUNCHER_SOURCE_DIR "/scripts/make-sample-install; ") +
                          "$m $R 120 && rm -rf $Q && mkdir -p $Q && cp -a $R/package/nimbrel $A " +
                          "&& echo x >$A/only-in-old && $m $R 121" + (old ? "" : " && rm -r $Q"))
                             .c_str()),
                  0);
    }
    std::string Package() const { return root + "/package/nimbrel"; }
    bool Exists(const std::string& path) const { return access(path.c_str(), F_OK) == 0; }
    size_t Logged(const std::string& text) const {  // how often the log holds text
        const std::string log = ReadFile(base / "log");
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++n;
        return n;
    }

    testsupport::TempDir base;
    const std::string home = base / "home", root = base / "opt", quarn = home + "/.CorvaneQuarn",
                      app = quarn + "/CorvaneQuarn.app";
};

}  // namespace servicetest
