#include "launcher/launcher.h"

#include <QApplication>
#include <QCoreApplication>
#include <QFont>
#include <QIcon>
#include <QImageReader>
#include <QPixmap>
#if QT_VERSION_MAJOR < 6
#include <QX11Info>
#endif
#include <xcb/xcb.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "launcher/notify-adapter.h"
#include "launcher/str-table.h"
#include "lib/desktop/dpi-info.h"
#include "lib/desktop/ui-path-manager.h"
#include "log/log.h"
#include "service/linux/linux-service.h"

namespace {
const char kComponent[] = "launcher_debug";

// Ids of the string-table rows the launcher shows.
const int kStrReady = 54;          // "%1 is ready."
const int kStrClientName = 531;    // "Corvane Quarn Client"
const int kStrInitializing = 716;  // "%1 is initializing..."

}  // namespace

// The connections are queued (the worker on its own thread, the adapter on this one), so only
// the GUI thread touches the dialog. Nothing stops an upgrade half-way: no cancel button, and
// closing the dialog (Esc, the window's close) only hides it; the work ends the application.
Launcher::Launcher() {
    worker = new Worker();
    dialog = new ProcessingProgressDialog();
    dialog->setCancelButton(nullptr);
    dialog->setAutoReset(false);
    dialog->setModal(false);
    dialog->setAttribute(Qt::WA_QuitOnClose, false);
    // clang-format off
    connect(this, SIGNAL(sigStart()), worker, SLOT(HandleServicce()));
    connect(worker, SIGNAL(sigShowMsg()), this, SLOT(ShowMsgBox()));
    connect(worker, SIGNAL(sigServiceDone()), this, SLOT(LaunchDone()));
    connect(worker, SIGNAL(sigUpdateProgress(int, int)), this, SLOT(UpdateProgress(int, int)));
    connect(worker, SIGNAL(sigSetLabelText(QString)), this, SLOT(SetLabelText(QString)));

    connect(Notify_Adapter::GetInstance(), SIGNAL(sigUpdateProgress(int, int)), this, SLOT(UpdateProgress(int,int)));
    connect(Notify_Adapter::GetInstance(), SIGNAL(sigUpdateDialogText(QString)), this, SLOT(SetLabelText(QString)));
    // clang-format on
}

Launcher::~Launcher() {
    delete worker;
    delete dialog;
}

void Launcher::Run() {
    worker->StartThread();
}

void Launcher::Start() {
    emit sigStart();
}

// Truncated integer percentage, as the bar shows whole steps only.
void Launcher::UpdateProgress(int total, int steps) {
    dialog->setValue(steps * 100 / total);
}

void Launcher::SetLabelText(QString text) {
    dialog->setLabelText(text);
}

void Launcher::ShowMsgBox() {
    dialog->show();
}

void Launcher::LaunchDone() {
    dialog->setValue(100);
    dialog->hide();
    worker->QuitThread();
    worker->JoinThread();
    QCoreApplication::quit();
}

void HandlerThread::run() {
    exec();
}

Worker::Worker() : thread(nullptr), service(nullptr), state(0), retries(3) {
    service = new LinuxService();
    thread = new HandlerThread();
    moveToThread(thread);
}

Worker::~Worker() {
    delete thread;
    delete service;
}

void Worker::StartThread() {
    thread->start(QThread::InheritPriority);
}

void Worker::QuitThread() {
    thread->quit();
}

void Worker::JoinThread() {
    thread->wait();
}

// One login's sequence; the client is started whatever the upgrade did, so the user always
// gets the copy that is there.
void Worker::HandleServicce() {
    LOG_AT(DEBUG, kComponent, 92, "running\n");
    service->PreUpgrade();
    if (!service->IsNeedUpgrade()) {
        LOG_AT(DEBUG, kComponent, 97, "no need to upgrade\n");
    } else {
        emit sigShowMsg();
        if (service->HandlePackageUpgrade() == 0) {
            emit sigUpdateProgress(100, 100);
            emit sigSetLabelText(
                StrTable::LoadStr(kStrReady).arg(StrTable::LoadStr(kStrClientName), 0, ' '));
        } else {
            LOG_AT(ERROR, kComponent, 104, "Failed to upgrade package\n");
        }
    }
    service->RemoveAgedFolders();
    service->PostUpgrade();
    LOG_AT(DEBUG, kComponent, 120, "done\n");
    emit sigServiceDone();
}

namespace {

// The icon is read as the PNG it is: left to guess the format, Qt would load every image
// plugin of the system, at every login, for one small icon.
QIcon IconFromPng(const QString& path) {
    QImageReader reader(path, "png");
    reader.setAutoDetectImageFormat(false);
    return QIcon(QPixmap::fromImage(reader.read()));
}

// Qt writes only decoration hints for a title and system menu; window managers that go by the
// function hints (the other half of the same property) then still offer minimise and maximise.
// Completing the functions on the X window, after Qt has written its hints and before the
// window is mapped, leaves moving and closing; the widget's flags stay as they are. Resizing
// goes too: the width is fixed and the height is the content's, and managers that ignore the
// minimise and maximise bits (openbox) still take away maximise from a window that cannot
// be resized.
void LeaveOutMinimiseAndMaximise(WId window) {
#if QT_VERSION_MAJOR >= 6
    const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 == nullptr || QGuiApplication::platformName() != QLatin1String("xcb")) {
        return;
    }
    xcb_connection_t* connection = x11->connection();
#else
    if (!QX11Info::isPlatformX11()) {
        return;
    }
    xcb_connection_t* connection = QX11Info::connection();
#endif
    enum : uint32_t { kHintFunctions = 1, kMove = 4, kClose = 32 };
    static const char kName[] = "_MOTIF_WM_HINTS";
    xcb_intern_atom_reply_t* atom = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, sizeof(kName) - 1, kName), nullptr);
    if (atom == nullptr) {
        return;
    }
    // Flags, functions, decorations, input mode, status.
    uint32_t hints[5] = {0, 0, 0, 0, 0};
    xcb_get_property_reply_t* written = xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, window, atom->atom, atom->atom, 0, 5), nullptr);
    if (written != nullptr && written->format == 32) {
        const int n = std::min(5, xcb_get_property_value_length(written) / 4);
        const auto* values = static_cast<const uint32_t*>(xcb_get_property_value(written));
        std::copy(values, values + n, hints);
    }
    hints[0] |= kHintFunctions;
    hints[1] = kMove | kClose;
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, atom->atom, atom->atom, 32, 5,
                        hints);
    xcb_flush(connection);
    free(written);
    free(atom);
}

}  // namespace

void ProcessingProgressDialog::showEvent(QShowEvent* event) {
    QProgressDialog::showEvent(event);
    LeaveOutMinimiseAndMaximise(winId());
}

ProcessingProgressDialog::ProcessingProgressDialog() : QProgressDialog(nullptr) {
    const QFont font = QApplication::font();
    const QString icon_path =
        UIPathManager::getInstance()->getPath("root_resource_path") + "/images/ico_72_nimbrel.png";
    setWindowTitle(StrTable::LoadStr(kStrClientName));
    setWindowIcon(IconFromPng(icon_path));
    // Title and system menu only: no minimise or maximise button.
    setWindowFlags(Qt::WindowTitleHint | Qt::WindowSystemMenuHint);
    setValue(0);
    setRange(0, 100);
    // The dialog appears only when an upgrade starts (ShowMsgBox), never by its own timer:
    // a start script that runs long on an up-to-date login must not make it pop up.
    setMinimumDuration(std::numeric_limits<int>::max());
    setLabelText(
        StrTable::LoadStr(kStrInitializing).arg(StrTable::LoadStr(kStrClientName), 0, ' '));
    setFont(font);
    setModal(true);
    setWindowModality(Qt::WindowModal);
    setFixedWidth(static_cast<int>(DPIinfo::getInstance()->getDPI() * 400.0));
    setStyleSheet(DPIinfo::getInstance()->getScaledStyleSheet(
        "QProgressDialog { background-color: WhiteSmoke; vertical-align: middle; }"));
}
