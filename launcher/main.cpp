#include <clocale>

#include <QApplication>
#include <QDir>
#include <QFont>
#include <QGuiApplication>
#include <QOpenGLContext>
#include <QStringList>
#include <QTranslator>

#include "launcher/launcher.h"
#include "launcher/str-table.h"
#include "lib/desktop/single-application.h"
#include "lib/desktop/ui-path-manager.h"
#include "lib/desktop/vesk-locale.h"
#include "log/log.h"
#include "service/cloud-service.h"

int qInitResources_texts();

namespace {

const char kComponent[] = "launcher_debug";
const char kDesktopFile[] = "cloud-quarn-launcher";

// The launcher draws nothing with OpenGL, yet on X11 Qt loads a GL driver for its first window
// (Mesa's software one where there is no GPU): time, memory and a library that leaves leaks
// behind when it is unloaded. Unless the user chose a GL integration, the launcher's own
// process goes without one. The variable is cleared again once the platform has settled its
// choice, so the client that the start script starts inherits the user's environment as it was.
class NoGlIntegration {
public:
    NoGlIntegration() : set_(!qEnvironmentVariableIsSet(kVariable)) {
        if (set_)
            qputenv(kVariable, "none");
    }
    // Call once the application object exists.
    void Settle() {
        if (!set_)
            return;
        // Asking whether threaded OpenGL works makes the X11 platform pick its GL integration
        // now, while the variable is set; without this it would do so at the first window.
        QOpenGLContext::supportsThreadedOpenGL();
        qunsetenv(kVariable);
        set_ = false;
    }

private:
    static constexpr const char* kVariable = "QT_XCB_GL_INTEGRATION";
    bool set_;
};

// A login must not depend on a display: where Qt can open none (no X server, no Wayland plugin,
// a display that refuses the connection) the copy is still upgraded and the client started,
// only without the dialog. Qt takes the first platform of a ';'-separated list that opens, so
// the list it would try anyway gets "offscreen", which needs no display, at its end. What Qt
// says about the platforms it could not open is kept, to tell why in the log. The variable
// is put back once the application exists, so the client inherits the user's environment.
class PlatformWithFallback {
public:
    PlatformWithFallback() : user_(qgetenv(kVariable)), set_(qEnvironmentVariableIsSet(kVariable)) {
        tried_ = user_.isEmpty() ? QtDefault() : user_;
        qputenv(kVariable, tried_ + ";" + kFallback);
        previous_ = qInstallMessageHandler(&Keep);
    }
    // Call once the application object exists.
    void Settle() {
        qInstallMessageHandler(previous_);
        if (set_) {
            qputenv(kVariable, user_);
        } else {
            qunsetenv(kVariable);
        }
    }
    // Call once the logger is set up.
    void Report() const {
        if (QGuiApplication::platformName() != kFallback || tried_.split(';').contains(kFallback))
            return;
        LOG_HERE(WARNING, kComponent,
                 "no progress dialog can be shown, as Qt opened no display with '%s': %s\n",
                 tried_.constData(), Said().join("; ").toUtf8().constData());
    }

private:
    // What Qt 5.15 tries when the variable is not set: Wayland first in a Wayland session.
    static QByteArray QtDefault() {
        return qgetenv("XDG_SESSION_TYPE") == "wayland" ? "wayland;xcb" : "xcb";
    }
    static QStringList& Said() {
        static QStringList said;
        return said;
    }
    // Qt's own output goes on as before.
    static void Keep(QtMsgType type, const QMessageLogContext& context, const QString& message) {
        Said() << message.simplified();
        previous_(type, context, message);
    }
    static constexpr const char* kVariable = "QT_QPA_PLATFORM";
    static constexpr const char* kFallback = "offscreen";
    static QtMessageHandler previous_;
    QByteArray user_;
    QByteArray tried_;
    bool set_;
};

QtMessageHandler PlatformWithFallback::previous_ = nullptr;

}  // namespace

void initialize_resources() {
    setlocale(LC_ALL, "");
    qInitResources_texts();
}

// The per-user paths hang off the user install root, asked for afresh for every key; the
// system-wide root is the folder above the launcher's own "bin".
void initializeQuarnPaths() {
    FillQuarnPathTable(&Service::GetUserInstallPath, QCoreApplication::applicationDirPath());
}

void initialize_logger() {
    const std::string level_file =
        (GetPath(PathKey::kRootResource) + "/log/launcher.debug").toUtf8().toStdString();
    const QString log_dir = GetPath(PathKey::kUserQuarn) + "/log";
    if (!QDir("").mkpath(log_dir)) {
        return;
    }
    Logger::Initialize(Logger::TYPE_FILE, (log_dir + "/launcher.log").toUtf8().toStdString(),
                       level_file, 50, Logger::SCOPE_THREAD);

    // The values go out in their wide-character form, so only the first character of each
    // path reaches the line (the rest follows a zero byte). The log has always looked like
    // this and readers of it expect it; the mismatch with "%s" is intended.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    LOG_AT(INFO, kComponent, 106, ">>> user_nimbrel_path = %s\n",
           GetPath(PathKey::kUserNimbrel).toStdWString().c_str());
    LOG_AT(INFO, kComponent, 107, ">>> user_nimbrel_app_path = %s\n",
           GetPath(PathKey::kUserNimbrelApp).toStdWString().c_str());
    LOG_AT(INFO, kComponent, 108, ">>> user_nimbrel_resource_path = %s\n",
           GetPath(PathKey::kUserNimbrelResource).toStdWString().c_str());
    LOG_AT(INFO, kComponent, 109, ">>> user_nimbrel_data_path = %s\n",
           GetPath(PathKey::kUserNimbrelData).toStdWString().c_str());
    LOG_AT(INFO, kComponent, 110, ">>> user_nimbrel_working_dir_path = %s\n",
           GetPath(PathKey::kUserNimbrelWorkingDir).toStdWString().c_str());
    LOG_AT(INFO, kComponent, 111, ">>> user_nimbrel_quarn_ui_path = %s\n",
           GetPath(PathKey::kUserNimbrelQuarnUi).toStdWString().c_str());
    LOG_AT(INFO, kComponent, 112, ">>> root_resource_path = %s\n",
           GetPath(PathKey::kRootResource).toStdWString().c_str());
#pragma GCC diagnostic pop
}

void initializeLanguage(QtSingleApplication& app) {
    // The application owns the translator, which is used as long as the application runs.
    auto* translator = new QTranslator(&app);
    const QString code = VeskLocale::getInstance()->getDefaultLanguage();
    if (translator->load(":/" + code + ".qm", "", "", "") && !translator->isEmpty()) {
        app.installTranslator(translator);
    }
    StrTable::InitStrTable();
    QApplication::setFont(QFont(code == "tha" ? "Microsoft Sans Serif" : "Arial", 9));
}

int main(int argc, char** argv) {
    NoGlIntegration no_gl;
    PlatformWithFallback platform;
    QtSingleApplication app(argc, argv, true);
    platform.Settle();
    no_gl.Settle();
    // On Wayland the compositor finds the name and icon through the autostart entry's name.
    QGuiApplication::setDesktopFileName(kDesktopFile);
    initialize_resources();
    initializeQuarnPaths();
    initialize_logger();
    if (app.isRunning()) {
        LOG_AT(DEBUG, kComponent, 149, "app has already launched, return\n");
        return 0;
    }
    platform.Report();
    initializeLanguage(app);

    // Goes before main returns, after the event loop has ended.
    Launcher launcher;
    launcher.Run();
    launcher.Start();
    return QApplication::exec();
}
