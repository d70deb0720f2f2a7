#include <clocale>

#include <QApplication>
#include <QDir>
#include <QFont>
#include <QOpenGLContext>
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
    QtSingleApplication app(argc, argv, true);
    no_gl.Settle();
    initialize_resources();
    initializeQuarnPaths();
    initialize_logger();
    if (app.isRunning()) {
        LOG_AT(DEBUG, kComponent, 149, "app has already launched, return\n");
        return 0;
    }
    initializeLanguage(app);

    // Goes before main returns, after the event loop has ended.
    Launcher launcher;
    launcher.Run();
    launcher.Start();
    return QApplication::exec();
}
