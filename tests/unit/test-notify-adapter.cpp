#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QString>
#include <QThread>

#include "launcher/notify-adapter.h"

namespace {

// The dialog side lives on the GUI thread and the extractor calls from the worker: both
// signals must arrive as queued events, in the receiver's thread, with the arguments intact.
TEST(NotifyAdapter, WorkerCallsArriveQueuedOnTheGuiThread) {
    int argc = 1;
    char name[] = "test-notify-adapter";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    Notify_Adapter* adapter = Notify_Adapter::GetInstance();
    QObject receiver;
    std::vector<QString> calls;
    std::vector<QThread*> threads;
    QObject::connect(adapter, &Notify_Adapter::sigUpdateProgress, &receiver,
                     [&](int total, int current) {
                         calls.push_back(QString("%1/%2").arg(total).arg(current));
                         threads.push_back(QThread::currentThread());
                     });
    QObject::connect(adapter, &Notify_Adapter::sigUpdateDialogText, &receiver, [&](QString text) {
        calls.push_back(text);
        threads.push_back(QThread::currentThread());
    });

    Notify_Adapter* from_worker = nullptr;
    std::thread worker([&from_worker]() {
        from_worker = Notify_Adapter::GetInstance();
        QString text = QStringLiteral("Corvane Quarn Client is initializing...");
        from_worker->UpdateDialogText(text);
        text[0] = QChar('X');  // the receiver holds its own copy
        from_worker->UpdateProgress(3, 1);
        from_worker->UpdateProgress(3, 3);
    });
    worker.join();
    EXPECT_EQ(from_worker, adapter);
    EXPECT_TRUE(calls.empty());  // nothing ran in the worker: the calls wait in the queue
    QCoreApplication::processEvents();
    EXPECT_EQ(calls,
              (std::vector<QString>{"Corvane Quarn Client is initializing...", "3/1", "3/3"}));
    EXPECT_EQ(threads, std::vector<QThread*>(3, app.thread()));
}

}  // namespace
