#pragma once

#include <QObject>
#include <QSharedMemory>

#include <atomic>

// Follows the updater through the first word of its shared segment, once a second.
class UpdaterStateListener : public QObject {
    Q_OBJECT
public:
    explicit UpdaterStateListener(const QString& key);

signals:
    void updateInProcess();

public slots:
    void listenToUpdateProcess();

private:
    QSharedMemory sharedMem;
    std::atomic<bool> running{true};
};
