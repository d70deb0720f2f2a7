// The launcher in-process; the dialog's look is checked in a real X server (e2e-dialog-x11.sh).

#include "launcher/launcher.h"
#include "launcher/notify-adapter.h"
#include "tests/support/test-support.h"

#define main launcher_main  // the start-up functions, taken in under another entry
#include "launcher/main.cpp"
#undef main

namespace {

QtSingleApplication& App() {
    static testsupport::TempDir runtime;  // for the single-instance lock
    static int argc = setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1) + 1;
    static char* argv[] = {const_cast<char*>("test-launcher"), nullptr};
    static auto* app = new QtSingleApplication(argc, argv, true);
    static const bool ready = (initialize_resources(), StrTable::InitStrTable(), true);
    return ready ? *app : *app;
}

// Stands in for the upgrade service; what it records is written by the worker before the end.
struct FakeService : Service {
    FakeService(bool need, int result) : need(need), result(result) {}
    void StopService() override {}
    int HandlePackageUpgrade() override {
        Notify_Adapter::GetInstance()->UpdateDialogText("unpacking");  // as the extractor does
        Notify_Adapter::GetInstance()->UpdateProgress(10, 4);
        return calls += "Handle ", result;
    }
    void PostUpgrade() override {
        calls += "Post ";
        usleep(need ? 0 : 4300 * 1000);  // past the 4 s after which the dialog would show itself
        QMetaObject::invokeMethod(       // the dialog just before the launcher's last step
            dialog,
            [this] {
                seen = QString("%1 %2 %3")
                           .arg(dialog->isVisible())
                           .arg(dialog->value())
                           .arg(dialog->labelText())
                           .toStdString();
            },
            Qt::BlockingQueuedConnection);
    }
    void PreUpgrade() override { calls += "Pre "; }
    bool IsNeedUpgrade() override { return calls += "IsNeed ", need; }
    bool PerUserBinPathExist() override { return true; }
    bool need;
    int result;
    QProgressDialog* dialog = nullptr;
    std::string calls;
    std::string seen;
};

}  // namespace

struct LauncherTestAccess : ::testing::TestWithParam<std::tuple<bool, int, std::string>> {
    static void Use(Launcher& l, FakeService* s) {
        l.worker->service.reset(s);
        s->dialog = l.dialog.get();
    }
};

TEST_P(LauncherTestAccess, WorkerSequenceAndWhatTheUserSees) {
    const auto [need, result, seen] = GetParam();
    App();
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir / "levels", "launcher_debug=7\n"));
    Logger::Initialize(Logger::TYPE_FILE, dir / "log", dir / "levels", 50, Logger::SCOPE_THREAD);
    Launcher launcher;
    auto* service = new FakeService(need, result);
    Use(launcher, service);
    launcher.Run();
    launcher.Start();
    EXPECT_EQ(0, QApplication::exec());
    Logger::Destroy();
    EXPECT_EQ(need ? "Pre IsNeed Handle Post " : "Pre IsNeed Post ", service->calls);
    EXPECT_EQ(seen, service->seen);
    EXPECT_FALSE(service->dialog->isVisible());
    const std::string log = testsupport::ReadFile(dir / "log");
    const auto has = [&log](const char* line) { return log.find(line) != std::string::npos; };
    EXPECT_EQ(!need, has("[DEBUG] launcher.cpp(97): no need to upgrade\n"));
    EXPECT_EQ(result != 0, has("[ERROR] launcher.cpp(104): Failed to upgrade package\n"));
}

// Visible, bar and label: after a failed upgrade they stay where the copy left them (4 of 10).
INSTANTIATE_TEST_SUITE_P(
    NothingUpgradedFailed, LauncherTestAccess,
    ::testing::Values(std::make_tuple(false, 0, "0 0 Corvane Quarn Client is initializing..."),
                      std::make_tuple(true, 0, "1 100 Corvane Quarn Client is ready."),
                      std::make_tuple(true, -1, "1 40 unpacking")));
