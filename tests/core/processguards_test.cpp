#include "runguard.h"
#include "workerthread.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <QUuid>

#include <atomic>
#include <functional>

namespace {

QString uniqueKey()
{
    return "velora-test-" + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

// Receives the worker's call and notes on which thread it ran.
class Target : public QObject {
    Q_OBJECT
public:
    std::atomic<int> calls{0};
    std::atomic<Qt::HANDLE> thread{nullptr};
public slots:
    void work()
    {
        thread = QThread::currentThreadId();
        ++calls;
    }
};

bool waitFor(const std::function<bool()>& done, int ms = 5000)
{
    QElapsedTimer t;
    t.start();
    while (!done() && t.elapsed() < ms) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
    return done();
}

} // namespace

TEST(RunGuard, TheHolderSeesNobodyElseAndOthersSeeTheHolder)
{
    const QString key = uniqueKey();
    RunGuard holder(key);
    EXPECT_FALSE(holder.isAnotherRunning());
    ASSERT_TRUE(holder.tryToRun());
    EXPECT_FALSE(holder.isAnotherRunning()) << "the holder itself reports false";

    RunGuard asker(key);
    EXPECT_TRUE(asker.isAnotherRunning());
    EXPECT_FALSE(asker.tryToRun()) << "only one may hold the key";

    holder.release();
    EXPECT_FALSE(asker.isAnotherRunning());
    EXPECT_TRUE(asker.tryToRun());
}

// Another program finds the guard by this key: it must not change.
TEST(RunGuard, KeysAreTheSha1OfKeyAndSuffix)
{
    EXPECT_EQ(RunGuard::generateKeyHash("velora", "_sharedmemKey"), "d121ce5f86c03e0793bb4a8051b00599df4f2a27");
}

TEST(WorkerThread, RunsTheNamedSlotOnceOnAThreadOfItsOwn)
{
    Target target;
    WorkerThread::doWork(&target, SLOT(work()), 7);
    ASSERT_TRUE(waitFor([&] { return target.calls == 1; }));
    EXPECT_NE(target.thread.load(), QThread::currentThreadId());
    QThread::msleep(50);
    EXPECT_EQ(target.calls, 1);
}

#include "processguards_test.moc"
