// The launcher in-process: path table, progress dialog, controller and worker sequence, language.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QCloseEvent>
#include <QEvent>
#include <QKeyEvent>
#include <QPushButton>
#include <QTimer>
#include <QWindow>

#include <cstdlib>
#include <string>

#include "launcher/launcher.h"
#include "launcher/notify-adapter.h"
#include "lib/desktop/dpi-info.h"
#include "log/log.h"
#include "tests/support/test-support.h"

// The start-up functions live in the executable's source; take them in under another entry.
#define main launcher_main
#include "launcher/main.cpp"
#undef main

// Readable failure messages.
void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}

struct LauncherTestAccess {
    static ProcessingProgressDialog* dialog(Launcher& l) { return l.dialog; }
    static void ReplaceService(Launcher& l, Service* service) {
        delete l.worker->service;
        l.worker->service = service;
    }
};

struct DPIinfoTestAccess {
    static void Force(double factor) { DPIinfo::getInstance()->forced_factor = factor; }
};

namespace {

using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

QtSingleApplication& App() {
    static TempDir runtime;
    static QtSingleApplication* app = [] {
        setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
        static char name[] = "test-launcher";
        static char* argv[] = {name, nullptr};
        static int argc = 1;
        auto* made = new QtSingleApplication(argc, argv, true);
        initialize_resources();
        StrTable::InitStrTable();
        UIPathManager::getInstance()->setPath("root_resource_path",
                                              LAUNCHER_SOURCE_DIR "/resources");
        return made;
    }();
    return *app;
}

const QString kClient = "Corvane Quarn Client";

// One login through the worker's paths: what the service says, and what the user then sees.
struct RunCase {
    const char* name;
    bool need;
    int result;
    bool report;
    int post_ms;
    const char* calls;
    bool shown;
    int bar;  // the dialog's value when the launcher finishes
    QString label;
    const char* logged;
    enum { kNone, kEscape, kWindowClose } closes = kNone;  // what the user does to the dialog
};
void PrintTo(const RunCase& c, std::ostream* os) {
    *os << c.name;
}

// Stands in for the upgrade service and records the calls the worker makes. Only the worker
// writes `calls`, before the queued signal that ends the run, so no lock is needed.
class FakeService : public Service {
public:
    explicit FakeService(const RunCase& c) : c_(c) {}
    void StopService() override { calls += "Stop "; }
    int HandlePackageUpgrade() override {
        calls += "Handle ";
        if (c_.closes != RunCase::kNone)
            usleep(300 * 1000);  // the user closes the dialog meanwhile
        if (c_.report) {         // what the extractor does while it unpacks
            Notify_Adapter::GetInstance()->UpdateDialogText("unpacking");
            Notify_Adapter::GetInstance()->UpdateProgress(10, 4);
        }
        return c_.result;
    }
    void PostUpgrade() override {
        calls += "Post ";
        usleep(c_.post_ms * 1000);
    }
    void PreUpgrade() override { calls += "Pre "; }
    bool IsNeedUpgrade() override {
        calls += "IsNeed ";
        return c_.need;
    }
    bool PerUserBinPathExist() override { return true; }
    std::string calls;

private:
    const RunCase& c_;
};

// Watches what the user sees of the dialog during one run.
class LauncherRun : public QObject, public ::testing::TestWithParam<RunCase> {
protected:
    bool eventFilter(QObject*, QEvent* e) override {
        // Queued slot calls reach the launcher as meta-call events; the last is LaunchDone.
        if (e->type() == QEvent::MetaCall)
            value_before_last_call = dialog->value();
        if (e->type() == QEvent::Show && !shown)
            CloseAsTheUserDoes(GetParam().closes);
        shown |= e->type() == QEvent::Show;
        return false;
    }
    void CloseAsTheUserDoes(decltype(RunCase::closes) how) {
        if (how == RunCase::kEscape) {
            QCoreApplication::postEvent(
                dialog, new QKeyEvent(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier));
        } else if (how == RunCase::kWindowClose) {
            QTimer::singleShot(0, dialog, [this] {  // as the window manager's close arrives
                QCloseEvent close;
                QCoreApplication::sendEvent(dialog->windowHandle(), &close);
            });
        }
    }
    QProgressDialog* dialog = nullptr;
    bool shown = false;
    int value_before_last_call = -1;
};

}  // namespace

TEST_P(LauncherRun, WorkerSequence) {
    App();
    const RunCase& c = GetParam();
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir / "levels", "launcher_debug=7\n"));
    Logger::Initialize(Logger::TYPE_FILE, dir / "log", dir / "levels", 50, Logger::SCOPE_THREAD);
    Launcher launcher;
    auto* service = new FakeService(c);
    LauncherTestAccess::ReplaceService(launcher, service);
    dialog = LauncherTestAccess::dialog(launcher);
    launcher.installEventFilter(this);
    dialog->installEventFilter(this);
    launcher.Run();
    launcher.Start();
    EXPECT_EQ(0, QApplication::exec());
    Logger::Destroy();
    EXPECT_EQ(c.calls, service->calls);
    EXPECT_EQ(c.shown, shown);
    EXPECT_FALSE(dialog->isVisible());
    EXPECT_EQ(c.bar, value_before_last_call);
    EXPECT_EQ(c.label, dialog->labelText());
    const std::string log = ReadFile(dir / "log");
    EXPECT_NE(std::string::npos, log.find(c.logged));
    EXPECT_EQ(c.result != 0, log.find("[ERROR]") != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, LauncherRun,
    ::testing::Values(
        // Longer than the dialog's own 4 s grace before it would show itself.
        RunCase{"NothingToUpgrade", false, 0, false, 4300, "Pre IsNeed Post ", false, 0,
                kClient + " is initializing...", "[DEBUG] launcher.cpp(97): no need to upgrade\n"},
        RunCase{"Upgraded", true, 0, false, 0, "Pre IsNeed Handle Post ", true, 100,
                kClient + " is ready.", "[DEBUG] launcher.cpp(120): done\n"},
        // The client still starts; the bar and the label stay where they were.
        RunCase{"UpgradeFailed", true, -1, false, 0, "Pre IsNeed Handle Post ", true, 0,
                kClient + " is initializing...",
                "[ERROR] launcher.cpp(104): Failed to upgrade package\n"},
        RunCase{"ExtractorReports", true, -1, true, 0, "Pre IsNeed Handle Post ", true, 40,
                "unpacking", "[DEBUG] launcher.cpp(120): done\n"},
        // Closing the dialog hides it; the upgrade and the client's start still run through.
        RunCase{"EscapeDuringUpgrade", true, 0, false, 0, "Pre IsNeed Handle Post ", true, 100,
                kClient + " is ready.", "[DEBUG] launcher.cpp(120): done\n", RunCase::kEscape},
        RunCase{"WindowClosedDuringUpgrade", true, 0, false, 0, "Pre IsNeed Handle Post ", true,
                100, kClient + " is ready.", "[DEBUG] launcher.cpp(120): done\n",
                RunCase::kWindowClose}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PathTable, NineKeysBelowTheInstallRootCleaned) {
    App();
    const QString root = QDir::cleanPath(QCoreApplication::applicationDirPath() + "/..");
    // On Deepin the data folder is the install root, taken as the user wrote it.
    setenv("XDG_CURRENT_DESKTOP", "Deepin", 1);
    setenv("XDG_DATA_HOME", "/data/u/", 1);
    initializeQuarnPaths();
    unsetenv("XDG_CURRENT_DESKTOP");
    unsetenv("XDG_DATA_HOME");
    const struct {
        const char* key;
        QString value;
    } expected[] = {
        {"user_corvane_quarn_path", "/data/u/.CorvaneQuarn"},
        {"user_corvane_quarn_app_path", "/data/u/.CorvaneQuarn/CorvaneQuarn.app"},
        {"user_corvane_quarn_resource_path", "/data/u/.CorvaneQuarn/CorvaneQuarn.app"},
        {"user_corvane_quarn_data_path", "/data/u/.CorvaneQuarn/data"},
        {"user_corvane_quarn_working_dir_path", "/data/u/.CorvaneQuarn/CorvaneQuarn.app/bin"},
        {"user_corvane_quarn_ui_path", "/data/u/.CorvaneQuarn/CorvaneQuarn.app/bin/cloud-quarn-ui"},
        {"user_nimbrel_path", "/data/u/.Nimbrel"},
        {"user_nimbrel_resource_path", "/data/u/.Nimbrel/Nimbrel.app"},
        {"root_resource_path", root},
    };
    for (const auto& e : expected)
        EXPECT_EQ(e.value, UIPathManager::getInstance()->getPath(e.key)) << e.key;
    EXPECT_EQ(QDir(QCoreApplication::applicationDirPath()).absolutePath(), root + "/tests");
    // Restore what the dialog tests read.
    UIPathManager::getInstance()->setPath("root_resource_path", LAUNCHER_SOURCE_DIR "/resources");
}

TEST(ProgressDialog, LooksTheSameAtEveryScaleButForItsWidth) {
    App();
    for (const auto& [scale, width] :
         {std::make_pair(1.0, 400), std::make_pair(1.25, 500), std::make_pair(1.5, 600)}) {
        DPIinfoTestAccess::Force(scale);
        ProcessingProgressDialog dialog;
        EXPECT_EQ(width, dialog.width()) << scale;
        EXPECT_EQ(width, dialog.minimumWidth());
        EXPECT_EQ(width, dialog.maximumWidth());
        EXPECT_EQ(kClient, dialog.windowTitle());
        EXPECT_EQ(kClient + " is initializing...", dialog.labelText());
        EXPECT_EQ(0, dialog.minimum());
        EXPECT_EQ(100, dialog.maximum());
        EXPECT_FALSE(dialog.windowIcon().isNull());
        const Qt::WindowFlags flags = dialog.windowFlags();
        EXPECT_TRUE(flags & Qt::WindowTitleHint);
        EXPECT_TRUE(flags & Qt::WindowSystemMenuHint);
        EXPECT_FALSE(flags & (Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint |
                              Qt::WindowCloseButtonHint | Qt::CustomizeWindowHint));
    }
    DPIinfoTestAccess::Force(1.0);
}

TEST(ProgressDialog, LauncherTakesAwayCancelAndShowsWholePercent) {
    App();
    Launcher launcher;
    QProgressDialog* dialog = LauncherTestAccess::dialog(launcher);
    EXPECT_EQ(nullptr, dialog->findChild<QPushButton*>());
    EXPECT_FALSE(dialog->isModal());
    QMetaObject::invokeMethod(&launcher, "UpdateProgress", Q_ARG(int, 200), Q_ARG(int, 50));
    EXPECT_EQ(25, dialog->value());
    QMetaObject::invokeMethod(&launcher, "UpdateProgress", Q_ARG(int, 3), Q_ARG(int, 2));
    EXPECT_EQ(66, dialog->value());  // truncated
}

// Last: a translator, once installed, stays for the rest of the process.
TEST(Language, ThaiSwitchesTheFontAndUnknownLanguagesStayEnglish) {
    QtSingleApplication& app = App();
    setenv("LANGUAGE", "xyz", 1);
    initializeLanguage(app);
    EXPECT_EQ(kClient, StrTable::LoadStr(531));
    EXPECT_EQ("Arial", QApplication::font().family());
    EXPECT_EQ(9, QApplication::font().pointSize());

    setenv("LANGUAGE", "th_TH", 1);
    initializeLanguage(app);
    EXPECT_EQ("Microsoft Sans Serif", QApplication::font().family());
    EXPECT_EQ("Microsoft Sans Serif", ProcessingProgressDialog().font().family());
    unsetenv("LANGUAGE");
}
