// Reference for the login-time benchmark (bench/bench-login): the least a Qt widgets program
// with a progress dialog costs from start to exit on the same platform plugin.
//
//   login-reference [PROGRAM [ARGUMENT...]]
//
// Given a program, it also runs it once through QProcess::execute and waits for it, as the
// launcher must run the client's start script at every login: that step's own share.
#include <QApplication>
#include <QProcess>
#include <QProgressDialog>
#include <QStringList>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QProgressDialog dialog;
    dialog.hide();
    if (argc > 1) {
        QStringList arguments;
        for (int i = 2; i < argc; ++i)
            arguments << QString::fromLocal8Bit(argv[i]);
        QProcess::execute(QString::fromLocal8Bit(argv[1]), arguments);
    }
    return 0;
}
