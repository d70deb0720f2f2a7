#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/desktop/dpi-info.h"
#include "lib/desktop/single-application.h"
#include "lib/desktop/vesk-locale.h"
#include "tests/support/test-support.h"

struct DPIinfoTestAccess {
    static void Force(double factor) { DPIinfo::getInstance()->forced_factor = factor; }
};

// Builds the application object as the launcher does: 1 when another launcher runs. Given a
// pipe, it starts a client as the start script would, reports on the pipe and holds the lock
// until it is killed, so that no clean-up runs.
static int SeesAnotherLauncher(int pipe = -1) {
    static char name[] = "cloud-quarn-launcher", *argv[] = {name, nullptr};
    int argc = 1;
    QtSingleApplication app(argc, argv, true);
    const char seen = app.isRunning() ? '1' : '0';
    if (pipe >= 0 && fork() == 0)
        execl("/bin/sh", "sh", "-c", "sleep 3", static_cast<char*>(nullptr));
    if (pipe >= 0 && write(pipe, &seen, 1) == 1)
        pause();
    return seen - '0';
}

TEST(SingleInstance, SecondStartSeesTheFirstUntilItEnds) {
    testsupport::TempDir runtime, home;
    setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t first = fork();
    if (first == 0)
        _exit(SeesAnotherLauncher(ready[1]));
    char seen = '?';
    EXPECT_TRUE(read(ready[0], &seen, 1) == 1 && seen == '0');
    EXPECT_EQ(1, testsupport::RunInChild([] { return SeesAnotherLauncher(); }));
    // Without a runtime folder the lock lives in the home folder's cache, a lock of its own.
    EXPECT_EQ(0, testsupport::RunInChild([&home] {
                  unsetenv("XDG_RUNTIME_DIR");
                  setenv("HOME", home.path().c_str(), 1);
                  return SeesAnotherLauncher() || access((home / ".cache").c_str(), F_OK);
              }));
    // Killed, the holder leaves no stale lock, and the client it started does not keep it.
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    EXPECT_EQ(0, testsupport::RunInChild([] { return SeesAnotherLauncher(); }));
}

// Locale names map to the translated languages, read in the C library's order: LANGUAGE, then
// LC_ALL, LC_MESSAGES, LANG.
TEST(LanguageCode, LocaleNamesAndTheirOrder) {
    const std::pair<const char*, const char*> cases[] = {
        {"zh", "chs"},    {"zh_SG", "chs"}, {"zh_HK", "cht"}, {"de_DE@euro", "ger"},
        {"nn_NO", "nor"}, {"pt-BR", "ptb"}, {"pt_PT", "ptg"}, {"fi_FI", "enu"}};
    for (const auto& [name, code] : cases)
        EXPECT_EQ(code, VeskLanguageCode(name).toStdString()) << name;
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
    setenv("LC_ALL", "it_IT.UTF-8", 1);
    setenv("LANGUAGE", "th:en", 1);
    for (auto [next, code] : {std::pair("LANGUAGE", "tha"), std::pair("LC_ALL", "ita"),
                              std::pair("LC_MESSAGES", "fre"), std::pair("LANG", "ger")}) {
        EXPECT_EQ(code, VeskLocale::getInstance()->getDefaultLanguage().toStdString()) << next;
        unsetenv(next);
    }
}

// Only whole "<number>px" tokens scale, wherever they stand; no screen is a standard display.
TEST(DisplayScale, StyleSheetPixelsScaleWithTheFactor) {
    DPIinfoTestAccess::Force(1.5);
    EXPECT_EQ("a:3px;b:1.5em 3.75px;c:2.px;d:x2px2px;e:7;f:0.75px;g:9pt",
              DPIinfo::getInstance()
                  ->getScaledStyleSheet("a:2px;b:1.5em 2.5px;c:2.px;d:x1px1px;e:7;f:.5px;g:9pt")
                  .toStdString());
    DPIinfoTestAccess::Force(0.0);
    EXPECT_DOUBLE_EQ(1.0, DPIinfo::getInstance()->getDPI());
}
