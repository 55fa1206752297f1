#include "ipclistener.h"

#include "globalsettings.h"
#include "workerthread.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

IpcListener* IpcListener::instance()
{
    // The first status answer may come from a worker thread while start() makes the listener.
    static IpcListener* self = new IpcListener();
    return self;
}

IpcListener::IpcListener()
{
    WorkerThread::doWork(this, "1listenToFifos()", -1);
}

IpcListener::Command IpcListener::commandFor(char byte)
{
    // The log texts are those the menu's logs have always shown, doubles included.
    switch (byte) {
    case '0': return {16, "IPC: b"};
    case '1': return {110, "IPC: 1"};
    case '2': return {111, "IPC: 2"};
    case '3': return {112, "IPC: 3"};
    case '4': return {21, "IPC: 21"};
    case '5': return {22, "IPC: 22"};
    case '6': return {23, "IPC: 23"};
    case '7': return {24, "IPC: 24"};
    case '8': return {17, "IPC: d"};
    case 'Q': return {25, "IPC: 25"};
    case 'a': return {1, "IPC: a"};
    case 'b': return {108, "IPC: b"};
    case 'c': return {107, "IPC: c"};
    case 'd': return {104, "IPC: d"};
    case 'e': return {7, "IPC: e"};
    case 'f': return {4, "IPC: f"};
    case 'g': return {105, "IPC: g"};
    case 'h': return {8, "IPC: h"};
    case 'i': return {9, "IPC: i"};
    case 'j': return {101, "IPC: j"};
    case 'k': return {14, "IPC: k"};
    case 'l': return {100, "IPC: l"};
    case 'm': return {0, "IPC: m"};
    case 'n': return {109, "IPC: n"};
    case 'o': return {103, "IPC: o"};
    case 'p': return {6, "IPC: p"};
    case 'q': return {12, "IPC: q"};
    case 'r': return {15, nullptr};
    case 's': return {3, "IPC: s"};
    case 't': return {2, "IPC: t"};
    case 'u': return {102, "IPC: u"};
    case 'v': return {5, "IPC: v"};
    case 'w': return {11, "IPC: w"};
    case 'x': return {13, "IPC: x"};
    case 'y': return {10, "IPC: i"};
    case 'z': return {106, "IPC: z"};
    default: return {};
    }
}

IpcListener::Command IpcListener::take(const QString& path)
{
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray line = file.readLine();
    QByteArray firstLine = line;
    if (firstLine.endsWith('\n'))
        firstLine.chop(1);
    qDebug() << "ipc read:" << firstLine;
    // The menu may have made the file and not written it yet: look again next turn.
    if (firstLine.isEmpty()) {
        file.close();
        return {};
    }
    const QByteArray command = QString::fromUtf8(firstLine).trimmed().toUtf8();
    qDebug() << "read command from" << QFileInfo(path).fileName();
    // Blanks only leave the terminating zero, which is no command.
    const Command c = command.isEmpty() ? Command{} : commandFor(command.at(0));
    file.remove();
    return c;
}

IpcListener::Command IpcListener::takeLeftOver(const QString& path)
{
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadWrite))
        return {};
    QByteArray line = file.readLine();
    if (line.endsWith('\n'))
        line.chop(1);
    if (line.isEmpty())
        return {};
    file.remove();
    return {1000, nullptr};
}

void IpcListener::listenToFifos()
{
    const QString path = GS::instance()->commandFilePath;
    qDebug() << "Fifo position:" << path;
    const Command leftOver = takeLeftOver(path);
    if (leftOver.id >= 0)
        emit received(leftOver.id);

    while (running) {
        if (!listening) {
            suspended = true;
            WorkerThread::msleep(10);
            continue;
        }
        const Command c = take(path);
        if (c.id >= 0) {
            emit received(c.id);
            if (c.text)
                qDebug() << c.text;
        }
        WorkerThread::msleep(50);
        WorkerThread::msleep(10);
    }
}

void IpcListener::writeDone()
{
    listening = false;
    // Only the first call ever waits: nothing clears suspended again.
    while (!suspended)
        WorkerThread::msleep(10);
    QFile answer(GS::instance()->answerFilePath);
    if (answer.open(QIODevice::ReadWrite | QIODevice::Truncate))
        answer.close();
    else
        printf("cannot write to fifo! Folder is %s, exitting.\n", qPrintable(answer.fileName()));
    listening = true;
}
