#include "lib/desktop/single-application.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <cerrno>

namespace {

// The key is fixed so that every launcher of the same user, whatever its path or version,
// competes for the same lock.
const char kAppKey[] = "cloud-quarn-launcher";

// The user's runtime folder, else ~/.cache: private to the user and local to the machine.
QString LockFolder() {
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QDir(QFile::decodeName(runtime)).exists()) {
        return QFile::decodeName(runtime);
    }
    return QDir::homePath() + "/.cache";
}

}  // namespace

// The lock is taken as soon as the application object exists, so a refused start costs
// nothing but the open file. The kernel drops it when the holder ends, however it ends; O_CLOEXEC
// keeps the client started through the start script from inheriting it and blocking the next login.
QtSingleApplication::QtSingleApplication(int& argc, char** argv, bool GUIenabled)
    : QApplication(argc, argv, GUIenabled) {
    const QString folder = LockFolder();
    QDir().mkpath(folder);
    const QString path =
        folder + "/" + QString::fromLatin1(kAppKey) + "-" + QString::number(getuid()) + ".lock";
    lock_fd = open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_fd < 0) {
        // Without a lock file nothing can tell two launchers apart; run rather than refuse.
        return;
    }
    int rc;
    do {
        rc = flock(lock_fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        running = (errno == EWOULDBLOCK);
        close(lock_fd);
        lock_fd = -1;
    }
}

QtSingleApplication::~QtSingleApplication() {
    if (lock_fd >= 0) {
        close(lock_fd);
    }
}

bool QtSingleApplication::isRunning() {
    return running;
}
