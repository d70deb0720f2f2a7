#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QString>
#include <QThread>

#include "launcher/notify-adapter.h"

namespace {

TEST(NotifyAdapter, OneInstanceWhicheverThreadAsks) {
    Notify_Adapter* here = Notify_Adapter::GetInstance();
    ASSERT_NE(here, nullptr);
    std::vector<Notify_Adapter*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i]() { seen[i] = Notify_Adapter::GetInstance(); });
    }
    for (auto& t : threads)
        t.join();
    for (Notify_Adapter* p : seen)
        EXPECT_EQ(p, here);
}

// The dialog side lives on the GUI thread and the extractor calls from the worker: both
// signals must arrive as queued events, in the receiver's thread, with the arguments intact.
TEST(NotifyAdapter, WorkerCallsArriveQueuedOnTheGuiThread) {
    int argc = 1;
    char name[] = "test-notify-adapter";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    Notify_Adapter* adapter = Notify_Adapter::GetInstance();
    QObject receiver;

    struct Call {
        int total, current;
        QString text;
        QThread* thread;
    };
    std::vector<Call> calls;
    QObject::connect(adapter, &Notify_Adapter::sigUpdateProgress, &receiver,
                     [&calls](int total, int current) {
                         calls.push_back({total, current, QString(), QThread::currentThread()});
                     });
    QObject::connect(adapter, &Notify_Adapter::sigUpdateDialogText, &receiver,
                     [&calls](QString text) {
                         calls.push_back({-1, -1, text, QThread::currentThread()});
                     });

    std::thread worker([adapter]() {
        QString text = QStringLiteral("Corvane Quarn Client is initializing...");
        adapter->UpdateDialogText(text);
        // The receiver gets its own copy, whatever the sender does with its string later.
        text[0] = QChar('X');
        adapter->UpdateProgress(3, 1);
        adapter->UpdateProgress(3, 3);
    });
    worker.join();

    // Nothing ran in the worker: the calls wait in the GUI thread's queue.
    EXPECT_TRUE(calls.empty());
    QCoreApplication::processEvents();

    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].text, QStringLiteral("Corvane Quarn Client is initializing..."));
    EXPECT_EQ(calls[1].total, 3);
    EXPECT_EQ(calls[1].current, 1);
    EXPECT_EQ(calls[2].total, 3);
    EXPECT_EQ(calls[2].current, 3);
    for (const Call& c : calls)
        EXPECT_EQ(c.thread, app.thread());
}

}  // namespace
