#pragma once

#include <QObject>

// Runs a named slot of a target once on a thread of its own; the thread and the
// worker clear themselves up when the slot returns.
class WorkerThread : public QObject {
    Q_OBJECT
public:
    int argument;

    explicit WorkerThread(int argument);

    // slot is written as SLOT() writes it, for example "1loadCalibration()".
    static void doWork(QObject* target, const char* slot, int argument);
    static void msleep(unsigned long ms);

signals:
    void startingToWork(int argument);
    void finished();

public slots:
    void run();
};
