// The helpers around the service's process: files, autostart, the annotation toolbar, the
// updater's and the menu's shared memory, and the worker thread.
#include "eventwait.h"
#include "filehelper.h"
#include "globalsettings.h"
#include "oshelper.h"
#include "runguard.h"
#include "slateworksdkhelper.h"
#include "updaterstatelistener.h"
#include "workerthread.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSharedMemory>
#include <QTemporaryDir>
#include <QThread>
#include <QUuid>

#include <atomic>
#include <cstring>

namespace {

void touch(const QString& path)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
}

QString uniqueKey(const char* prefix)
{
    return prefix + QUuid::createUuid().toString(QUuid::WithoutBraces);
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

} // namespace

TEST(FileHelper, CleansCalibrationsAndTheCommandFiles)
{
    QTemporaryDir dir;
    GS* gs = GS::instance();
    gs->stylusCalibrationPath = dir.filePath("stylus-velora.ini").toStdString();
    gs->fingerCalibrationPath = dir.filePath("finger-velora.ini").toStdString();
    gs->userSettingsPath = dir.filePath("user/user.ini").toStdString();
    touch(QString::fromStdString(gs->stylusCalibrationPath));
    EXPECT_TRUE(FileHelper::fileExists(gs->stylusCalibrationPath.c_str()));
    FileHelper::cleanVeloraCalibFiles();
    EXPECT_FALSE(FileHelper::fileExists(gs->stylusCalibrationPath.c_str()));

    FileHelper::cleanWorkingDirectory();
    ASSERT_TRUE(QFile::exists(dir.filePath("user")));
    touch(dir.filePath("user/fifo1"));
    touch(dir.filePath("user/refifo"));
    touch(dir.filePath("user/user.ini"));
    FileHelper::cleanWorkingDirectory();
    EXPECT_FALSE(QFile::exists(dir.filePath("user/fifo1")));
    EXPECT_FALSE(QFile::exists(dir.filePath("user/refifo")));
    EXPECT_TRUE(QFile::exists(dir.filePath("user/user.ini")));
}

TEST(OsHelper, WritesTheAutostartEntryAsTheUserChose)
{
    QTemporaryDir dir;
    OsHelper* os = OsHelper::instance();
    EXPECT_EQ(os, OsHelper::instance());
    os->autostartPath = dir.filePath("velora.desktop");
    GS::instance()->autostart = false;
    ASSERT_TRUE(os->setAutostart());
    QFile f(os->autostartPath);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), QByteArray("[Desktop Entry]\nType=Application\nExec=/usr/local/bin/Velora/Velora.sh\n"
                                      "Hidden=false\nNoDisplay=false\nX-GNOME-Autostart-enabled=false\n"
                                      "Name=Velora\nComment=\n"));
    f.close();
    GS::instance()->autostart = true;
    ASSERT_TRUE(os->setAutostart());
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_TRUE(f.readAll().contains("X-GNOME-Autostart-enabled=true\n"));
}

TEST(SlateworkHelper, DoesNothingWithoutItsPrograms)
{
    SlateworkSDKHelper helper;
    helper.hideSlateworkAnnotationToolbar();
    helper.showSlateworkAnnotationToolbar();
    EXPECT_EQ(helper.process.state(), QProcess::NotRunning);

    QTemporaryDir dir;
    helper.hidePath = dir.filePath("hide.sh");
    QFile script(helper.hidePath);
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\necho hidden\n");
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    helper.hideSlateworkAnnotationToolbar();
    ASSERT_TRUE(helper.process.waitForFinished(5000));
    EXPECT_EQ(helper.process.readAllStandardOutput(), QByteArray("hidden\n"));
}

TEST(UpdaterStateListener, SignalsAnUpdateAndStopsWhenTheUpdaterLetsGo)
{
    const QString key = uniqueKey("velora-updater-test-");
    QSharedMemory updater(key);
    ASSERT_TRUE(updater.create(8));
    auto setWord = [&](int32_t w) {
        updater.lock();
        std::memcpy(updater.data(), &w, sizeof w);
        updater.unlock();
    };
    setWord(1);
    // Lives as long as the process, as the watchers of the system do: its thread may outlive the test.
    static UpdaterStateListener* listener = nullptr;
    listener = new UpdaterStateListener(key);
    // Counted on the watcher's own thread: the signal comes from there.
    static std::atomic<int> updates{0};
    QObject::connect(listener, &UpdaterStateListener::updateInProcess, listener, [] { ++updates; },
                     Qt::DirectConnection);
    EXPECT_TRUE(waitFor([&] { return updates >= 1; }));
    setWord(-1);
    QThread::msleep(1500);
    const int seen = updates;
    setWord(1);
    QThread::msleep(1500);
    EXPECT_EQ(updates, seen) << "after -1 the listener no longer looks";
}

TEST(RunGuard, TheHolderSeesNobodyElseOthersSeeTheHolderAndTheKeyStays)
{
    const QString key = uniqueKey("velora-test-");
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

    // Another program finds the guard by its key, the SHA-1 of key and suffix: it must not change.
    EXPECT_EQ(RunGuard::generateKeyHash("velora", "_sharedmemKey"), "d121ce5f86c03e0793bb4a8051b00599df4f2a27");
}

TEST(WorkerThread, RunsTheNamedSlotOnceOnAThreadOfItsOwn)
{
    Target target;
    WorkerThread::doWork(&target, SLOT(work()), 7);
    ASSERT_TRUE(waitFor([&] { return target.calls == 1; }, 5000));
    EXPECT_NE(target.thread.load(), QThread::currentThreadId());
    QThread::msleep(50);
    EXPECT_EQ(target.calls, 1);
}

#include "oshelpers_test.moc"
