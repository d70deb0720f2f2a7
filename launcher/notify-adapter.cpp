#include "launcher/notify-adapter.h"

Notify_Adapter* Notify_Adapter::GetInstance() {
    // Made on first use (the Launcher constructor, on the GUI thread, so it lives there) and
    // destroyed at process exit; the language guarantees one initialisation across threads.
    static Notify_Adapter instance;
    return &instance;
}

void Notify_Adapter::UpdateProgress(int total, int current) {
    emit sigUpdateProgress(total, current);
}

void Notify_Adapter::UpdateDialogText(QString text) {
    emit sigUpdateDialogText(text);
}
