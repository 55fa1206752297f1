#pragma once

#include <QSharedMemory>
#include <QString>
#include <QSystemSemaphore>

// A shared-memory segment that tells whether a process holding the key is alive.
class RunGuard {
public:
    explicit RunGuard(const QString& key);
    ~RunGuard();
    RunGuard(const RunGuard&) = delete;
    RunGuard& operator=(const RunGuard&) = delete;

    // False when this guard itself holds the segment.
    bool isAnotherRunning();
    bool tryToRun();
    void release();

    static QString generateKeyHash(const QString& key, const QString& salt);

private:
    QString key;
    QString memLockKey;
    QString sharedmemKey;
    QSharedMemory sharedMem;
    QSystemSemaphore memLock;
};
