#include "runguard.h"
#include "workerthread.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QProcess>
#include <QSharedMemory>
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

TEST(RunGuard, KeysAreTheSha1OfKeyAndSuffix)
{
    EXPECT_EQ(RunGuard::generateKeyHash("velora", "_sharedmemKey"),
              QString::fromLatin1(QCryptographicHash::hash("velora_sharedmemKey", QCryptographicHash::Sha1).toHex()));
}

TEST(RunGuard, AHolderInAnotherProcessIsSeenUntilItEnds)
{
    const QString key = uniqueKey();
    // A small shell holder is not possible: the segment needs Qt's key scheme, so the
    // test binary re-runs itself as the holder.
    QProcess holder;
    holder.setProgram(QCoreApplication::applicationFilePath());
    holder.setArguments({"--gtest_filter=RunGuardHolder.*", "--gtest_also_run_disabled_tests"});
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("VELORA_TEST_HOLD_KEY", key);
    holder.setProcessEnvironment(env);
    holder.start();
    ASSERT_TRUE(holder.waitForStarted());
    RunGuard asker(key);
    EXPECT_TRUE(waitFor([&] { return asker.isAnotherRunning(); }));
    holder.write("x\n");
    holder.closeWriteChannel();
    ASSERT_TRUE(holder.waitForFinished(10000));
    EXPECT_FALSE(asker.isAnotherRunning());
}

// Run by the test above in a child process: holds the key until its input closes.
TEST(RunGuardHolder, DISABLED_HoldUntilStdinCloses)
{
    const QString key = qEnvironmentVariable("VELORA_TEST_HOLD_KEY");
    if (key.isEmpty())
        GTEST_SKIP();
    RunGuard guard(key);
    ASSERT_TRUE(guard.tryToRun());
    char c;
    while (fread(&c, 1, 1, stdin) == 1) {
    }
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
