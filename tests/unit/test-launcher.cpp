// The launcher in-process; the dialog's look is checked in a real X server (e2e-dialog-x11.sh).

#include "launcher/launcher.h"
#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "lib/desktop/single-application.h"
#include "service/cloud-service.h"
#include "tests/support/test-support.h"

int qInitResources_texts();

namespace {

// The test program's one application (it lives until the program ends), with the texts.
void MakeApp() {
    static testsupport::TempDir runtime;  // for the single-instance lock
    static int argc = 1;
    static char* argv[] = {const_cast<char*>("test-launcher"), nullptr};
    if (QApplication::instance() != nullptr)
        return;
    setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
    new QtSingleApplication(argc, argv, true);
    qInitResources_texts();
    StrTable::InitStrTable();
}

// Stands in for the upgrade service; what it records is written by the worker before the end.
struct FakeService : Service {
    FakeService(bool need, int result) : need(need), result(result) {}
    void StopService() override {}
    int HandlePackageUpgrade() override {
        Notify_Adapter::GetInstance()->UpdateDialogText("unpacking");  // as the extractor does
        Notify_Adapter::GetInstance()->UpdateProgress(10, 4);
        calls += "Handle ";
        return result;
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
    bool IsNeedUpgrade() override {
        calls += "IsNeed ";
        return need;
    }
    bool PerUserBinPathExist() override { return true; }
    bool need;
    int result;
    QProgressDialog* dialog = nullptr;
    std::string calls;
    std::string seen;
};

}  // namespace

struct LauncherTestAccess {
    struct Outcome {
        std::string calls;  // the service's operations, in order
        std::string seen;   // the dialog before the last step: visible, bar, label
    };
    // One login with the fake service, to the end of the event loop.
    static Outcome Login(bool need, int result) {
        MakeApp();
        Launcher launcher;
        auto* fake = new FakeService(need, result);
        launcher.worker->service.reset(fake);
        fake->dialog = launcher.dialog.get();
        launcher.Run();
        launcher.Start();
        EXPECT_EQ(0, QApplication::exec());
        EXPECT_FALSE(launcher.dialog->isVisible());
        return {fake->calls, fake->seen};
    }
};

// Nothing to upgrade: the dialog never shows, however long the client's start takes.
TEST(Launcher, NothingToUpgradeShowsNothing) {
    const auto outcome = LauncherTestAccess::Login(false, 0);
    EXPECT_EQ("Pre IsNeed Post ", outcome.calls);
    EXPECT_EQ("0 0 Corvane Quarn Client is initializing...", outcome.seen);
}

// A done upgrade: the dialog shows, full, with the ready text.
TEST(Launcher, DoneUpgradeEndsFullAndReady) {
    const auto outcome = LauncherTestAccess::Login(true, 0);
    EXPECT_EQ("Pre IsNeed Handle Post ", outcome.calls);
    EXPECT_EQ("1 100 Corvane Quarn Client is ready.", outcome.seen);
}

// A failed upgrade: the bar and label stay where the copy left them (4 of 10).
TEST(Launcher, FailedUpgradeKeepsTheLastProgress) {
    const auto outcome = LauncherTestAccess::Login(true, -1);
    EXPECT_EQ("Pre IsNeed Handle Post ", outcome.calls);
    EXPECT_EQ("1 40 unpacking", outcome.seen);
}
