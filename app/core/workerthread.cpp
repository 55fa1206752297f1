#include "workerthread.h"

#include <QDebug>
#include <QThread>

WorkerThread::WorkerThread(int argument_) : argument(argument_) {}

void WorkerThread::doWork(QObject* target, const char* slot, int argument)
{
    qDebug() << "Do work";
    auto* thread = new QThread();
    auto* worker = new WorkerThread(argument);
    worker->moveToThread(thread);
    // Direct: the target's slot runs on the new thread although the target lives elsewhere.
    QObject::connect(worker, SIGNAL(startingToWork(int)), target, slot, Qt::DirectConnection);
    QObject::connect(thread, &QThread::started, worker, &WorkerThread::run);
    QObject::connect(worker, &WorkerThread::finished, thread, &QThread::quit);
    QObject::connect(worker, &WorkerThread::finished, worker, &QObject::deleteLater);
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::InheritPriority);
}

void WorkerThread::msleep(unsigned long ms)
{
    QThread::msleep(ms);
}

void WorkerThread::run()
{
    qDebug() << "Thread run";
    emit startingToWork(argument);
    emit finished();
}
