#pragma once

#include "runguard.h"

#include <QMutex>
#include <QObject>

#include <atomic>

// Watches, once a second, whether the menu process still holds its guard.
class ExitListener : public QObject {
    Q_OBJECT
public:
    // The first call makes the listener and starts its watcher.
    static ExitListener* instance(QObject* parent = nullptr);

    bool isAnotherRunning();

signals:
    void hasExited();

public slots:
    void listenToExit();

private:
    explicit ExitListener(QObject* parent);
    QMutex guardLock; // the guard is asked from the main thread and the watcher
    RunGuard guard;
    std::atomic<bool> running{true};
    static std::atomic<ExitListener*> self;
};
