#pragma once

#include <QObject>
#include <QString>

#include <atomic>

// The menu's command channel: a plain file polled about every 60 ms for one command byte,
// an answer file touched when a command is done. Made once, on its own listening thread.
class IpcListener : public QObject {
    Q_OBJECT
public:
    // What one look at the command file took: the id to emit (-1 none) and its log text.
    struct Command {
        int id = -1;
        const char* text = nullptr;
    };

    std::atomic<bool> running{true};
    std::atomic<bool> listening{true};
    std::atomic<bool> suspended{false};

    // The first call starts the listening thread.
    static IpcListener* instance();

    // The id and log text of a command byte; id -1 for a byte outside the table.
    static Command commandFor(char byte);
    // One look at the command file. A file whose first line is empty is left for the next
    // look; any other is taken, and deleted, whether its byte is a command or not.
    static Command take(const QString& path);
    // A command file from before the start is not executed: id 1000 says it was there.
    static Command takeLeftOver(const QString& path);

    // Touches the answer file the menu waits on; any thread.
    void writeDone();

signals:
    void received(int id);

public slots:
    void listenToFifos();

private:
    IpcListener();
};
