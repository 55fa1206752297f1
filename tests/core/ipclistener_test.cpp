// The command channel as the menu uses it: a byte in the command file becomes one id on the
// listening thread, the file is taken, and the answer file is touched when a command is done.
#include "eventwait.h"
#include "globalsettings.h"
#include "ipclistener.h"
#include "messagelog.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <tuple>
#include <vector>

namespace {

class Channel : public ::testing::Test {
protected:
    IpcListener* ipc = IpcListener::instance();
    const QString path = GS::instance()->commandFilePath;
    std::vector<int> ids;
    // For the process: the listener's thread outlives the cases.
    static inline MessageLog* messages = nullptr;

    static void SetUpTestSuite()
    {
        messages = new MessageLog();
        IpcListener::instance();
        // A file written before the listener looked the first time is a left-over one.
        waitFor([] {
            const auto lines = messages->lines();
            return std::any_of(lines.begin(), lines.end(), [](const auto& l) { return l.starts_with("Fifo position:"); });
        }, 5000);
    }

    void SetUp() override
    {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QObject::connect(ipc, &IpcListener::received, &receiver, [this](int id) { ids.push_back(id); });
    }

    // Writes the file as a menu does and waits until the listener took it (or a few turns).
    void send(const QByteArray& content)
    {
        messages->clear();
        QFile f(path + ".new");
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(content);
        f.close();
        ASSERT_TRUE(QFile::rename(f.fileName(), path));
        QElapsedTimer t;
        t.start();
        while (QFile::exists(path) && t.elapsed() < 500)
            QThread::msleep(5);
        // The signal crosses to this thread as a queued call.
        QThread::msleep(20);
        QCoreApplication::processEvents();
    }

    QObject receiver;
};

TEST_F(Channel, EveryCommandByteGivesItsIdAndLogText)
{
    const struct {
        char byte;
        int id;
        const char* log;
    } table[] = {
        {'0', 16, "IPC: b"},   {'1', 110, "IPC: 1"}, {'2', 111, "IPC: 2"}, {'3', 112, "IPC: 3"}, {'4', 21, "IPC: 21"},
        {'5', 22, "IPC: 22"},  {'6', 23, "IPC: 23"}, {'7', 24, "IPC: 24"}, {'8', 17, "IPC: d"},  {'Q', 25, "IPC: 25"},
        {'a', 1, "IPC: a"},    {'b', 108, "IPC: b"}, {'c', 107, "IPC: c"}, {'d', 104, "IPC: d"}, {'e', 7, "IPC: e"},
        {'f', 4, "IPC: f"},    {'g', 105, "IPC: g"}, {'h', 8, "IPC: h"},   {'i', 9, "IPC: i"},   {'j', 101, "IPC: j"},
        {'k', 14, "IPC: k"},   {'l', 100, "IPC: l"}, {'m', 0, "IPC: m"},   {'n', 109, "IPC: n"}, {'o', 103, "IPC: o"},
        {'p', 6, "IPC: p"},    {'q', 12, "IPC: q"},  {'r', 15, nullptr},   {'s', 3, "IPC: s"},   {'t', 2, "IPC: t"},
        {'u', 102, "IPC: u"},  {'v', 5, "IPC: v"},   {'w', 11, "IPC: w"},  {'x', 13, "IPC: x"},  {'y', 10, "IPC: i"},
        {'z', 106, "IPC: z"},
    };
    for (const auto& b : table) {
        ids.clear();
        send(QByteArray(1, b.byte) + "\n");
        // The file is taken; a byte without a log text logs nothing of its own.
        EXPECT_EQ(std::tuple(QFile::exists(path), ids, messages->count(b.log ? b.log : "IPC: r") > 0),
                  std::tuple(false, std::vector<int>{b.id}, b.log != nullptr))
            << b.byte;
    }
}

TEST_F(Channel, OnlyTheFirstByteOfTheFirstTrimmedLineCounts)
{
    send("  m calibrate\nQ\n");
    EXPECT_EQ(std::tuple(ids, QFile::exists(path)), std::tuple(std::vector<int>{0}, false));
}

TEST_F(Channel, WhatIsNoCommandIsTakenWithoutAnIdUnlessTheLineIsEmpty)
{
    for (const QByteArray& content : {QByteArray("   \n"), QByteArray("#\n"), QByteArray("\xc3\xa9\n")}) {
        send(content);
        EXPECT_FALSE(QFile::exists(path)) << content.constData();
    }
    EXPECT_TRUE(ids.empty());
    // A file made but not yet written stays for the next look.
    send("\n");
    EXPECT_EQ(std::tuple(QFile::exists(path), ids), std::tuple(true, std::vector<int>{}));
    QFile::remove(path);
}

TEST_F(Channel, ACommandLeftOverFromBeforeTheStartIsReportedNotExecuted)
{
    const QString old = path + ".before";
    for (const auto& [content, id, stays] :
         {std::tuple{QByteArray("a\n"), 1000, false}, {QByteArray(""), -1, true}, {QByteArray("\nm"), -1, true}}) {
        QFile f(old);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(content);
        f.close();
        EXPECT_EQ(IpcListener::takeLeftOver(old).id, id);
        EXPECT_EQ(QFile::exists(old), stays);
        QFile::remove(old);
    }
}

TEST_F(Channel, WriteDoneTouchesTheAnswerFile)
{
    const QString answer = GS::instance()->answerFilePath;
    QFile::remove(answer);
    ipc->writeDone();
    EXPECT_EQ(std::tuple(QFile::exists(answer), ipc->listening.load()), std::tuple(true, true));
}

} // namespace
