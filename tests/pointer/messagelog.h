#pragma once
// Collects the process's log lines, from any thread, while it is alive.

#include <QString>
#include <QtGlobal>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

class MessageLog {
public:
    MessageLog()
    {
        current() = this;
        previous = qInstallMessageHandler(&MessageLog::handler);
    }
    ~MessageLog()
    {
        qInstallMessageHandler(previous);
        current() = nullptr;
    }

    std::vector<std::string> lines()
    {
        std::lock_guard<std::mutex> hold(lock);
        return collected;
    }
    int count(const std::string& text)
    {
        const std::vector<std::string> all = lines();
        return int(std::count(all.begin(), all.end(), text));
    }
    void clear()
    {
        std::lock_guard<std::mutex> hold(lock);
        collected.clear();
    }

private:
    std::mutex lock;
    std::vector<std::string> collected;
    QtMessageHandler previous = nullptr;

    static std::atomic<MessageLog*>& current()
    {
        static std::atomic<MessageLog*> log{nullptr};
        return log;
    }
    static void handler(QtMsgType, const QMessageLogContext&, const QString& text)
    {
        if (MessageLog* log = current()) {
            std::lock_guard<std::mutex> hold(log->lock);
            log->collected.push_back(text.toStdString());
        }
    }
};
