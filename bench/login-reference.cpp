// Reference for the login-time benchmark (bench/bench-login): the least a Qt widgets program
// with a progress dialog costs from start to exit on the same platform plugin.
#include <QApplication>
#include <QProgressDialog>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QProgressDialog dialog;
    dialog.hide();
    return 0;
}
