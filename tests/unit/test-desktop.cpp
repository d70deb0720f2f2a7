// Desktop support layer: single instance, language code, display scale.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QString>

#include <cstdlib>
#include <functional>
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

// Builds the application object the way the launcher does; 1 when another launcher runs.
// `running` is called while the object (and so the lock) exists.
int Launch(const std::function<void(int)>& running) {
    static char name[] = "cloud-quarn-launcher";
    static char* argv[] = {name, nullptr};
    int argc = 1;
    QtSingleApplication app(argc, argv, true);
    const int seen = app.isRunning() ? 1 : 0;
    if (running)
        running(seen);
    return seen;
}
int SeesAnotherLauncher() {
    return Launch(nullptr);
}

// Starts a launcher in a forked child that holds the lock until it is killed, so no clean-up
// runs; `spawn` is started from it meanwhile, like the client the start script runs. Returns
// the child, and in `seen` what the launcher saw ('1': another one runs).
pid_t Hold(char* seen, const char* spawn) {
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        Launch([&](int running) {
            const char state = static_cast<char>('0' + running);
            if (fork() == 0) {
                execl("/bin/sh", "sh", "-c", spawn, static_cast<char*>(nullptr));
                _exit(127);
            }
            if (write(ready[1], &state, 1) == 1)
                pause();
        });
        _exit(0);
    }
    close(ready[1]);
    if (read(ready[0], seen, 1) != 1)
        *seen = '?';
    close(ready[0]);
    return pid;
}

void Kill(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace

TEST(SingleInstance, SecondStartSeesTheFirstUntilItEnds) {
    TempDir runtime;
    setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
    EXPECT_EQ(0, RunInChild(SeesAnotherLauncher));
    char seen;
    const pid_t first = Hold(&seen, "sleep 3");
    ASSERT_EQ('0', seen);
    EXPECT_EQ(1, RunInChild(SeesAnotherLauncher));
    // Without a runtime folder the lock lives in the home folder's cache, a lock of its own.
    TempDir home;
    EXPECT_EQ(0, RunInChild([&home] {
                  unsetenv("XDG_RUNTIME_DIR");
                  setenv("HOME", home.path().c_str(), 1);
                  return SeesAnotherLauncher();
              }));
    EXPECT_EQ(0, access((home.path() + "/.cache").c_str(), F_OK));
    // Killed, the holder leaves no stale lock, and the client it started does not keep it.
    Kill(first);
    EXPECT_EQ(0, RunInChild(SeesAnotherLauncher));
}

TEST(LanguageCode, LocaleNamesMapToTheTranslatedLanguages) {
    const std::pair<const char*, const char*> cases[] = {
        {"zh_CN.UTF-8", "chs"}, {"zh_SG", "chs"}, {"zh_TW.UTF-8", "cht"}, {"zh_HK", "cht"},
        {"cs_CZ", "csy"},       {"da_DK", "dan"}, {"en_GB.UTF-8", "enu"}, {"fr_CA", "fre"},
        {"de_DE@euro", "ger"},  {"hu_HU", "hun"}, {"it_IT", "ita"},       {"ja_JP", "jpn"},
        {"ko_KR", "krn"},       {"nl_BE", "nld"}, {"nb_NO", "nor"},       {"nn_NO", "nor"},
        {"no", "nor"},          {"pl_PL", "plk"}, {"pt_BR", "ptb"},       {"pt-BR", "ptb"},
        {"pt_PT", "ptg"},       {"ru_RU", "rus"}, {"es_MX", "spn"},       {"sv_SE", "sve"},
        {"th_TH.UTF-8", "tha"}, {"tr_TR", "trk"}, {"C", "enu"},           {"POSIX", "enu"},
        {"fi_FI", "enu"},       {"", "enu"},      {"xyz", "enu"},
    };
    for (const auto& [name, code] : cases)
        EXPECT_EQ(QString(code), VeskLanguageCode(name)) << name;
}

// The C library's order: LANGUAGE, then LC_ALL, LC_MESSAGES, LANG.
TEST(LanguageCode, EnvironmentIsReadInTheCLibrarysOrder) {
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
    setenv("LC_ALL", "it_IT.UTF-8", 1);
    setenv("LANGUAGE", "th:en", 1);
    for (auto [code, next] :
         {std::make_pair("tha", "LANGUAGE"), std::make_pair("ita", "LC_ALL"),
          std::make_pair("fre", "LC_MESSAGES"), std::make_pair("ger", "LANG")}) {
        EXPECT_EQ(QString(code), VeskLocale::getInstance()->getDefaultLanguage());
        unsetenv(next);
    }
}

TEST(DisplayScale, StyleSheetPixelsScaleWithTheFactor) {
    const QString sheet = "QLabel { margin: 10px 3px; border: 1.5px solid; font-size: 9pt; }";
    DPIinfoTestAccess::Force(1.0);
    EXPECT_EQ(sheet, DPIinfo::getInstance()->getScaledStyleSheet(sheet));
    DPIinfoTestAccess::Force(1.5);
    EXPECT_DOUBLE_EQ(1.5, DPIinfo::getInstance()->getDPI());
    EXPECT_EQ("QLabel { margin: 15px 5px; border: 2.25px solid; font-size: 9pt; }",
              DPIinfo::getInstance()->getScaledStyleSheet(sheet));
    // Only whole "<number>px" tokens scale, wherever they stand.
    EXPECT_EQ("a:3px;b:1.5em 3.75px;c:2.px;d:x2px2px;e:7;f:0.75px",
              DPIinfo::getInstance()->getScaledStyleSheet(
                  "a:2px;b:1.5em 2.5px;c:2.px;d:x1px1px;e:7;f:.5px"));
    DPIinfoTestAccess::Force(0.0);
    // No application, no screen: the scale of a standard display.
    EXPECT_DOUBLE_EQ(1.0, DPIinfo::getInstance()->getDPI());
}
