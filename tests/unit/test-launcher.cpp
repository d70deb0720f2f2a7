// The launcher in-process: path table, progress dialog, controller and worker sequence, language.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QEvent>
#include <QProgressBar>
#include <QPushButton>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

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
    static Worker* worker(Launcher& l) { return l.worker; }
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

// Stands in for the upgrade service: records the calls the worker makes, on its thread.
class FakeService : public Service {
public:
    FakeService(bool need, int result) : need_(need), result_(result) {}
    void StopService() override { Record("StopService"); }
    int HandlePackageUpgrade() override {
        Record("HandlePackageUpgrade");
        if (report_) {
            // What the extractor does while it unpacks.
            Notify_Adapter::GetInstance()->UpdateDialogText("unpacking");
            Notify_Adapter::GetInstance()->UpdateProgress(10, 4);
        }
        return result_;
    }
    void PostUpgrade() override {
        Record("PostUpgrade");
        if (post_ms_)
            usleep(post_ms_ * 1000);
    }
    void PreUpgrade() override { Record("PreUpgrade"); }
    bool IsNeedUpgrade() override {
        Record("IsNeedUpgrade");
        return need_;
    }
    bool PerUserBinPathExist() override { return true; }

    void Record(const char* call) {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
    }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    bool report_ = false;
    int post_ms_ = 0;

private:
    bool need_;
    int result_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

// What the user saw of the dialog during one run.
struct Watch : QObject {
    Watch(Launcher& launcher, QProgressDialog* dialog) : dialog(dialog) {
        launcher.installEventFilter(this);
        dialog->installEventFilter(this);
    }
    bool eventFilter(QObject*, QEvent* e) override {
        // Queued slot calls reach the launcher as meta-call events; the last is LaunchDone.
        if (e->type() == QEvent::MetaCall)
            value_before_last_call = dialog->value();
        if (e->type() == QEvent::Show)
            shown = true;
        if (e->type() == QEvent::Hide && shown)
            hidden = true;
        return false;
    }
    QProgressDialog* dialog;
    bool shown = false;
    bool hidden = false;
    int value_before_last_call = -1;
};

class LauncherRun : public ::testing::Test {
protected:
    void SetUp() override {
        App();
        const std::string levels = dir_ / "launcher.debug";
        WriteFile(levels, "launcher_debug=7\n");
        Logger::Initialize(Logger::TYPE_FILE, log_, levels, 50, Logger::SCOPE_THREAD);
    }
    void TearDown() override { Logger::Destroy(); }

    // One login: start the worker, run the event loop until the launcher quits it.
    int Run(Launcher& launcher) {
        launcher.Run();
        launcher.Start();
        return QApplication::exec();
    }
    std::string Log() { return ReadFile(log_); }

    TempDir dir_;
    std::string log_ = dir_ / "launcher.log";
};

}  // namespace

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
    for (const auto& e : expected) {
        EXPECT_EQ(e.value, UIPathManager::getInstance()->getPath(e.key)) << e.key;
    }
    EXPECT_FALSE(root.endsWith("/.."));
    EXPECT_EQ(QDir(QCoreApplication::applicationDirPath()).absolutePath(), root + "/tests");
    EXPECT_EQ("", UIPathManager::getInstance()->getPath("user_nimbrel_app_path"));
    // Restore what the dialog tests read.
    UIPathManager::getInstance()->setPath("root_resource_path", LAUNCHER_SOURCE_DIR "/resources");
}

TEST(ProgressDialog, LooksTheSameAtEveryScaleButForItsWidth) {
    App();
    for (const auto& scale :
         {std::make_pair(1.0, 400), std::make_pair(1.25, 500), std::make_pair(1.5, 600)}) {
        DPIinfoTestAccess::Force(scale.first);
        ProcessingProgressDialog dialog;
        EXPECT_EQ(scale.second, dialog.width()) << scale.first;
        EXPECT_EQ(scale.second, dialog.minimumWidth());
        EXPECT_EQ(scale.second, dialog.maximumWidth());
        EXPECT_EQ(kClient, dialog.windowTitle());
        EXPECT_EQ(kClient + " is initializing...", dialog.labelText());
        EXPECT_EQ(0, dialog.minimum());
        EXPECT_EQ(100, dialog.maximum());
        EXPECT_EQ(0, dialog.value());
        EXPECT_EQ(Qt::WindowModal, dialog.windowModality());
        EXPECT_FALSE(dialog.windowIcon().isNull());
        EXPECT_EQ(QApplication::font().family(), dialog.font().family());
        EXPECT_EQ(QApplication::font().pointSize(), dialog.font().pointSize());
        EXPECT_TRUE(dialog.styleSheet().contains("WhiteSmoke"));
        const Qt::WindowFlags flags = dialog.windowFlags();
        EXPECT_TRUE(flags & Qt::WindowTitleHint);
        EXPECT_TRUE(flags & Qt::WindowSystemMenuHint);
        EXPECT_FALSE(flags & (Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint |
                              Qt::WindowCloseButtonHint | Qt::CustomizeWindowHint));
        EXPECT_TRUE(dialog.isWindow());
        EXPECT_FALSE(dialog.isVisible());
    }
    DPIinfoTestAccess::Force(1.0);
}

TEST(ProgressDialog, LauncherTakesAwayCancelAndModality) {
    App();
    Launcher launcher;
    QProgressDialog* dialog = LauncherTestAccess::dialog(launcher);
    EXPECT_EQ(nullptr, dialog->findChild<QPushButton*>());
    EXPECT_FALSE(dialog->isModal());
    EXPECT_FALSE(dialog->autoReset());
    // Whole percent, truncated.
    QMetaObject::invokeMethod(&launcher, "UpdateProgress", Q_ARG(int, 200), Q_ARG(int, 50));
    EXPECT_EQ(25, dialog->value());
    QMetaObject::invokeMethod(&launcher, "UpdateProgress", Q_ARG(int, 3), Q_ARG(int, 2));
    EXPECT_EQ(66, dialog->value());
    QMetaObject::invokeMethod(&launcher, "SetLabelText", Q_ARG(QString, "x"));
    EXPECT_EQ("x", dialog->labelText());
    // Reaching 100 keeps the bar there rather than resetting it.
    QMetaObject::invokeMethod(&launcher, "UpdateProgress", Q_ARG(int, 7), Q_ARG(int, 7));
    EXPECT_EQ(100, dialog->value());
}

TEST_F(LauncherRun, NothingToUpgradeNeverShowsTheDialogHoweverLongTheClientStarts) {
    Launcher launcher;
    auto* service = new FakeService(false, 0);
    // Longer than the dialog's own 4 s grace before it would show itself.
    service->post_ms_ = 4300;
    LauncherTestAccess::ReplaceService(launcher, service);
    Watch watch(launcher, LauncherTestAccess::dialog(launcher));
    EXPECT_EQ(0, Run(launcher));
    EXPECT_FALSE(watch.shown);
    EXPECT_EQ((std::vector<std::string>{"PreUpgrade", "IsNeedUpgrade", "PostUpgrade"}),
              service->calls());
    const std::string log = Log();
    const size_t running = log.find("[DEBUG] launcher.cpp(92): running\n");
    const size_t no_need = log.find("[DEBUG] launcher.cpp(97): no need to upgrade\n");
    const size_t done = log.find("[DEBUG] launcher.cpp(120): done\n");
    EXPECT_NE(std::string::npos, running);
    EXPECT_LT(running, no_need);
    EXPECT_LT(no_need, done);
    EXPECT_NE(std::string::npos, done);
}

TEST_F(LauncherRun, SuccessfulUpgradeEndsAtFullBarWithTheReadyText) {
    Launcher launcher;
    auto* service = new FakeService(true, 0);
    LauncherTestAccess::ReplaceService(launcher, service);
    QProgressDialog* dialog = LauncherTestAccess::dialog(launcher);
    Watch watch(launcher, dialog);
    EXPECT_EQ(0, Run(launcher));
    EXPECT_TRUE(watch.shown);
    EXPECT_TRUE(watch.hidden);
    EXPECT_FALSE(dialog->isVisible());
    EXPECT_EQ(100, watch.value_before_last_call);
    EXPECT_EQ(kClient + " is ready.", dialog->labelText());
    EXPECT_EQ((std::vector<std::string>{"PreUpgrade", "IsNeedUpgrade", "HandlePackageUpgrade",
                                        "PostUpgrade"}),
              service->calls());
    EXPECT_EQ(std::string::npos, Log().find("[ERROR]"));
}

TEST_F(LauncherRun, FailedUpgradeIsLoggedAndTheClientStillStarts) {
    Launcher launcher;
    auto* service = new FakeService(true, -1);
    LauncherTestAccess::ReplaceService(launcher, service);
    QProgressDialog* dialog = LauncherTestAccess::dialog(launcher);
    Watch watch(launcher, dialog);
    EXPECT_EQ(0, Run(launcher));
    EXPECT_TRUE(watch.shown);
    // The bar was not pushed to 100 while the dialog was up, and the label kept its text.
    EXPECT_EQ(0, watch.value_before_last_call);
    EXPECT_EQ(kClient + " is initializing...", dialog->labelText());
    EXPECT_EQ("PostUpgrade", service->calls().back());
    EXPECT_NE(std::string::npos,
              Log().find("[ERROR] launcher.cpp(104): Failed to upgrade package\n"));
}

TEST_F(LauncherRun, ExtractorReportsReachTheDialogThroughTheAdapter) {
    Launcher launcher;
    auto* service = new FakeService(true, -1);
    service->report_ = true;
    LauncherTestAccess::ReplaceService(launcher, service);
    QProgressDialog* dialog = LauncherTestAccess::dialog(launcher);
    Watch watch(launcher, dialog);
    EXPECT_EQ(0, Run(launcher));
    EXPECT_EQ("unpacking", dialog->labelText());
    EXPECT_EQ(40, watch.value_before_last_call);
}

// Last: a translator, once installed, stays for the rest of the process.
TEST(Language, ThaiSwitchesTheFontAndUnknownLanguagesStayEnglish) {
    QtSingleApplication& app = App();
    setenv("LANGUAGE", "xyz", 1);
    initializeLanguage(app);
    EXPECT_EQ(kClient, StrTable::LoadStr(531));
    EXPECT_EQ("%1 is ready.", StrTable::LoadStr(54));
    EXPECT_EQ("Arial", QApplication::font().family());
    EXPECT_EQ(9, QApplication::font().pointSize());

    setenv("LANGUAGE", "th_TH", 1);
    initializeLanguage(app);
    EXPECT_EQ("Microsoft Sans Serif", QApplication::font().family());
    EXPECT_EQ(9, QApplication::font().pointSize());
    EXPECT_FALSE(QApplication::font().italic());
    EXPECT_EQ(QFont::Normal, QApplication::font().weight());
    // Widgets made afterwards take the font.
    ProcessingProgressDialog dialog;
    EXPECT_EQ("Microsoft Sans Serif", dialog.font().family());
    unsetenv("LANGUAGE");
}
