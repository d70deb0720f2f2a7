// Desktop support layer: single instance, language code, display scale.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QString>

#include <cstdlib>
#include <string>

#include "lib/desktop/dpi-info.h"
#include "lib/desktop/single-application.h"
#include "lib/desktop/vesk-locale.h"
#include "tests/support/test-support.h"

// Readable failure messages.
void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}

struct DPIinfoTestAccess {
    static void Force(double factor) { DPIinfo::getInstance()->forced_factor = factor; }
};

namespace {

using testsupport::RunInChild;
using testsupport::TempDir;

// Builds the application object the way the launcher does, in this (child) process.
bool AppSeesAnotherLauncher() {
    static char name[] = "cloud-quarn-launcher";
    static char* argv[] = {name, nullptr};
    int argc = 1;
    QtSingleApplication app(argc, argv, true);
    return app.isRunning();
}

// A launcher that holds the lock until told to go: forked child, reports through pipes.
class Holder {
public:
    explicit Holder(const char* spawn = nullptr) {
        if (pipe(ready_) != 0 || pipe(release_) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ready_[0]);
            close(release_[1]);
            static char name[] = "cloud-quarn-launcher";
            static char* argv[] = {name, nullptr};
            int argc = 1;
            QtSingleApplication app(argc, argv, true);
            char state = app.isRunning() ? 'r' : 'h';
            if (spawn && fork() == 0) {
                // Started while the lock is held, like the client the start script runs.
                execl("/bin/sh", "sh", "-c", spawn, static_cast<char*>(nullptr));
                _exit(127);
            }
            if (write(ready_[1], &state, 1) != 1)
                _exit(3);
            char c;
            if (read(release_[0], &c, 1) < 0)
                _exit(4);
            _exit(0);
        }
        close(ready_[1]);
        close(release_[0]);
        if (read(ready_[0], &state_, 1) != 1)
            state_ = '?';
    }
    ~Holder() {
        Release();
        close(ready_[0]);
    }
    char state() const { return state_; }
    void Release() {
        if (pid_ <= 0)
            return;
        close(release_[1]);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    void Kill() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        close(release_[1]);
    }

private:
    int ready_[2] = {-1, -1};
    int release_[2] = {-1, -1};
    pid_t pid_ = -1;
    char state_ = '?';
};

class SingleInstance : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(runtime_.path().c_str(), 0700);
        setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1);
    }
    TempDir runtime_;
};

}  // namespace

TEST_F(SingleInstance, SecondStartSeesTheFirstUntilItEnds) {
    EXPECT_EQ(0, RunInChild([] { return AppSeesAnotherLauncher() ? 1 : 0; }));
    {
        Holder first;
        ASSERT_EQ('h', first.state());
        EXPECT_EQ(1, RunInChild([] { return AppSeesAnotherLauncher() ? 1 : 0; }));
        first.Release();
        EXPECT_EQ(0, RunInChild([] { return AppSeesAnotherLauncher() ? 1 : 0; }));
    }
    // A holder that dies without cleaning up leaves no stale lock behind.
    Holder crashed;
    ASSERT_EQ('h', crashed.state());
    crashed.Kill();
    EXPECT_EQ(0, RunInChild([] { return AppSeesAnotherLauncher() ? 1 : 0; }));
}

TEST_F(SingleInstance, ProcessStartedByTheLauncherDoesNotKeepTheLock) {
    Holder first("sleep 3");
    ASSERT_EQ('h', first.state());
    first.Release();
    // The sleeping child outlives the launcher; the next login must still run.
    EXPECT_EQ(0, RunInChild([] { return AppSeesAnotherLauncher() ? 1 : 0; }));
}

TEST_F(SingleInstance, LockIsPerUserFolderNotPerExecutable) {
    Holder first;
    ASSERT_EQ('h', first.state());
    TempDir other;
    // Another runtime folder (another user's session) has its own lock.
    EXPECT_EQ(0, RunInChild([&other] {
                  setenv("XDG_RUNTIME_DIR", other.path().c_str(), 1);
                  return AppSeesAnotherLauncher() ? 1 : 0;
              }));
    // Without a runtime folder the lock lives in the home folder's cache.
    TempDir home;
    EXPECT_EQ(0, RunInChild([&home] {
                  unsetenv("XDG_RUNTIME_DIR");
                  setenv("HOME", home.path().c_str(), 1);
                  return AppSeesAnotherLauncher() ? 1 : 0;
              }));
    EXPECT_EQ(0, access((home.path() + "/.cache").c_str(), F_OK));
}

TEST(LanguageCode, LocaleNamesMapToTheTranslatedLanguages) {
    const struct {
        const char* name;
        const char* code;
    } cases[] = {
        {"zh_CN.UTF-8", "chs"}, {"zh_SG", "chs"}, {"zh_TW.UTF-8", "cht"}, {"zh_HK", "cht"},
        {"cs_CZ", "csy"},       {"da_DK", "dan"}, {"en_GB.UTF-8", "enu"}, {"fr_CA", "fre"},
        {"de_DE@euro", "ger"},  {"hu_HU", "hun"}, {"it_IT", "ita"},       {"ja_JP", "jpn"},
        {"ko_KR", "krn"},       {"nl_BE", "nld"}, {"nb_NO", "nor"},       {"nn_NO", "nor"},
        {"no", "nor"},          {"pl_PL", "plk"}, {"pt_BR", "ptb"},       {"pt-BR", "ptb"},
        {"pt_PT", "ptg"},       {"ru_RU", "rus"}, {"es_MX", "spn"},       {"sv_SE", "sve"},
        {"th_TH.UTF-8", "tha"}, {"tr_TR", "trk"}, {"C", "enu"},           {"POSIX", "enu"},
        {"fi_FI", "enu"},       {"", "enu"},      {"xyz", "enu"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(QString(c.code), VeskLanguageCode(c.name)) << c.name;
    }
}

TEST(LanguageCode, EnvironmentIsReadInTheCLibrarysOrder) {
    EXPECT_EQ(0, RunInChild([] {
                  setenv("LANG", "de_DE.UTF-8", 1);
                  setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
                  setenv("LC_ALL", "it_IT.UTF-8", 1);
                  setenv("LANGUAGE", "th:en", 1);
                  if (VeskLocale::getInstance()->getDefaultLanguage() != "tha")
                      return 1;
                  unsetenv("LANGUAGE");
                  if (VeskLocale::getInstance()->getDefaultLanguage() != "ita")
                      return 2;
                  unsetenv("LC_ALL");
                  if (VeskLocale::getInstance()->getDefaultLanguage() != "fre")
                      return 3;
                  unsetenv("LC_MESSAGES");
                  if (VeskLocale::getInstance()->getDefaultLanguage() != "ger")
                      return 4;
                  return 0;
              }));
}

TEST(DisplayScale, StyleSheetPixelsScaleWithTheFactor) {
    const QString sheet = "QLabel { margin: 10px 3px; border: 1.5px solid; font-size: 9pt; }";
    DPIinfoTestAccess::Force(1.0);
    EXPECT_EQ(sheet, DPIinfo::getInstance()->getScaledStyleSheet(sheet));
    DPIinfoTestAccess::Force(1.5);
    EXPECT_DOUBLE_EQ(1.5, DPIinfo::getInstance()->getDPI());
    EXPECT_EQ("QLabel { margin: 15px 5px; border: 2.25px solid; font-size: 9pt; }",
              DPIinfo::getInstance()->getScaledStyleSheet(sheet));
    EXPECT_EQ("no sizes", DPIinfo::getInstance()->getScaledStyleSheet("no sizes"));
    DPIinfoTestAccess::Force(0.0);
    // No application, no screen: the scale of a standard display.
    EXPECT_DOUBLE_EQ(1.0, DPIinfo::getInstance()->getDPI());
}
