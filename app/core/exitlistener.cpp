#include "exitlistener.h"

#include "globalsettings.h"
#include "workerthread.h"

#include <QDebug>

std::atomic<ExitListener*> ExitListener::self{nullptr};

ExitListener* ExitListener::instance(QObject* parent)
{
    if (!self)
        self = new ExitListener(parent);
    return self;
}

ExitListener::ExitListener(QObject* parent) : QObject(parent), guard(GS::instance()->guardKey)
{
    WorkerThread::doWork(this, "1listenToExit()", -1);
}

bool ExitListener::isAnotherRunning()
{
    QMutexLocker hold(&guardLock);
    return guard.isAnotherRunning();
}

void ExitListener::listenToExit()
{
    while (running) {
        WorkerThread::msleep(1000);
        if (!isAnotherRunning()) {
            qDebug() << "Detected app is not running anymore";
            emit hasExited();
            running = false;
        }
    }
}
