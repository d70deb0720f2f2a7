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

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

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
Launcher::Launcher() : worker(std::make_unique<Worker>()) {
    dialog = std::make_unique<ProcessingProgressDialog>();
    dialog->setCancelButton(nullptr);
    dialog->setAutoReset(false);
    dialog->setModal(false);
    dialog->setAttribute(Qt::WA_QuitOnClose, false);
    // clang-format off
    connect(this, SIGNAL(sigStart()), worker.get(), SLOT(HandleServicce()));
    connect(worker.get(), SIGNAL(sigShowMsg()), this, SLOT(ShowMsgBox()));
    connect(worker.get(), SIGNAL(sigServiceDone()), this, SLOT(LaunchDone()));
    connect(worker.get(), SIGNAL(sigUpdateProgress(int, int)), this, SLOT(UpdateProgress(int, int)));
    connect(worker.get(), SIGNAL(sigSetLabelText(QString)), this, SLOT(SetLabelText(QString)));

    connect(Notify_Adapter::GetInstance(), SIGNAL(sigUpdateProgress(int, int)), this, SLOT(UpdateProgress(int,int)));
    connect(Notify_Adapter::GetInstance(), SIGNAL(sigUpdateDialogText(QString)), this, SLOT(SetLabelText(QString)));
    // clang-format on
}

Launcher::~Launcher() = default;

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

Worker::Worker()
    : service(std::make_unique<LinuxService>()), thread(std::make_unique<HandlerThread>()) {
    // The copy's progress reaches the dialog as the worker's own, queued like its other signals.
    service->copy_progress = [this](int total, int done) { emit sigUpdateProgress(total, done); };
    moveToThread(thread.get());
}

Worker::~Worker() = default;

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

// A reply of the X server, which the C library's free() releases.
struct FreeReply {
    void operator()(void* reply) const { free(reply); }
};
template <typename Reply>
using XReply = std::unique_ptr<Reply, FreeReply>;

xcb_atom_t Atom(xcb_connection_t* connection, const char* name) {
    const XReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, strlen(name), name), nullptr));
    return reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

// A property of a window, up to `length` 32-bit units of it; null when the server gives none.
XReply<xcb_get_property_reply_t> GetProperty(xcb_connection_t* connection, xcb_window_t window,
                                             xcb_atom_t name, xcb_atom_t type, uint32_t length) {
    return XReply<xcb_get_property_reply_t>(xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, window, name, type, 0, length), nullptr));
}

// Up to `count` 32-bit values of a property; fewer when it is shorter or missing.
std::vector<uint32_t> Property(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t name,
                               xcb_atom_t type, uint32_t count) {
    std::vector<uint32_t> values;
    const auto reply = GetProperty(connection, window, name, type, count);
    if (reply != nullptr && reply->format == 32) {
        const auto* data = static_cast<const uint32_t*>(xcb_get_property_value(reply.get()));
        values.assign(data, data + xcb_get_property_value_length(reply.get()) / 4);
    }
    return values;
}

// The running window manager's name, as it announces it on its check window (a window manager
// announces it on the root window of every screen it manages; the first one serves).
QByteArray WindowManagerName(xcb_connection_t* connection) {
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const std::vector<uint32_t> check = Property(
        connection, root, Atom(connection, "_NET_SUPPORTING_WM_CHECK"), XCB_ATOM_WINDOW, 1);
    if (check.empty()) {
        return QByteArray();
    }
    const auto reply = GetProperty(connection, check[0], Atom(connection, "_NET_WM_NAME"),
                                   Atom(connection, "UTF8_STRING"), 64);
    if (reply == nullptr || reply->format != 8) {
        return QByteArray();
    }
    return QByteArray(static_cast<const char*>(xcb_get_property_value(reply.get())),
                      xcb_get_property_value_length(reply.get()));
}

// Qt writes only decoration hints for a title and system menu; window managers that go by the
// function hints (the other half of the same property) then still offer minimise and maximise.
// Completing the functions on the X window, after Qt has written its hints and before the
// window is mapped, leaves moving and closing; the widget's flags stay as they are. Resizing
// goes too: the dialog's size is fixed. Openbox ignores the minimise bit and offers minimise
// and full screen to every ordinary window; there the window is announced as a tool bar, the
// one kind it keeps titled and closable without either.
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
    const xcb_atom_t motif = Atom(connection, "_MOTIF_WM_HINTS");
    if (motif == XCB_ATOM_NONE) {
        return;
    }
    // Flags, functions, decorations, input mode, status.
    std::vector<uint32_t> hints = Property(connection, window, motif, motif, 5);
    hints.resize(5, 0);
    hints[0] |= kHintFunctions;
    hints[1] = kMove | kClose;
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, motif, motif, 32, 5,
                        hints.data());
    if (WindowManagerName(connection) == "Openbox") {
        const xcb_atom_t toolbar = Atom(connection, "_NET_WM_WINDOW_TYPE_TOOLBAR");
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window,
                            Atom(connection, "_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM, 32, 1,
                            &toolbar);
    }
    xcb_flush(connection);
}

}  // namespace

// Pinned at its content's height (the width is fixed already) before its window is made, the
// dialog is a fixed-size window from the start: tiling desktops float it rather than stretch
// it over the screen, and no desktop offers to resize or maximise it. The height is taken
// here, not in the constructor, because the launcher removes the cancel button afterwards.
void ProcessingProgressDialog::setVisible(bool visible) {
    if (visible && !isVisible()) {
        ensurePolished();
        setFixedHeight(sizeHint().height());
    }
    QProgressDialog::setVisible(visible);
}

void ProcessingProgressDialog::showEvent(QShowEvent* event) {
    QProgressDialog::showEvent(event);
    LeaveOutMinimiseAndMaximise(winId());
}

ProcessingProgressDialog::ProcessingProgressDialog() : QProgressDialog(nullptr) {
    const QFont font = QApplication::font();
    const QString icon_path = GetPath(PathKey::kRootResource) + "/images/ico_72_nimbrel.png";
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
    setWindowModality(Qt::WindowModal);
    setFixedWidth(static_cast<int>(DPIinfo::getInstance()->getDPI() * 400.0));
    setStyleSheet(DPIinfo::getInstance()->getScaledStyleSheet(
        "QProgressDialog { background-color: WhiteSmoke; vertical-align: middle; }"));
}
