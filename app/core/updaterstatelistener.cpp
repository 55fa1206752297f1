#include "updaterstatelistener.h"

#include "workerthread.h"

#include <QDebug>

#include <cstring>

UpdaterStateListener::UpdaterStateListener(const QString& key) : sharedMem(key)
{
    qDebug() << "update listener ";
    WorkerThread::doWork(this, "1listenToUpdateProcess()", -1);
}

void UpdaterStateListener::listenToUpdateProcess()
{
    bool attachedBefore = false;
    while (running) {
        WorkerThread::msleep(1000);
        if (!sharedMem.attach()) {
            if (attachedBefore)
                break;
            continue;
        }
        attachedBefore = true;
        qDebug() << "updater is running now";
        sharedMem.lock();
        int32_t word = 0;
        if (sharedMem.size() >= static_cast<qsizetype>(sizeof word))
            std::memcpy(&word, sharedMem.constData(), sizeof word);
        switch (word) {
        case 1:
            qDebug() << "update is in progress";
            emit updateInProcess();
            break;
        case -1:
            qDebug() << "updater has quit or will not need velora to quit";
            running = false;
            break;
        case 2:
            qDebug() << "wait updater is doing something";
            break;
        default:
            break;
        }
        sharedMem.unlock();
        sharedMem.detach();
    }
}
