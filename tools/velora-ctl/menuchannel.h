#pragma once

#include <QString>

#include <optional>

// The menu's side of the service's command channel: one command byte into the command
// file, the answer file to wait on, the status file to read.
class MenuChannel {
public:
    MenuChannel(QString commandPath, QString answerPath, QString statusPath);

    // Writes the command once the service has taken the one before it; false if it never did.
    bool send(char command, int timeoutMs);
    // Waits until the service took the command file.
    bool waitUntilTaken(int timeoutMs) const;
    // Waits until the service touched the answer file after the last send().
    bool waitForAnswer(int timeoutMs) const;
    // Changes whenever the service writes a status, as each write puts a new file in place.
    unsigned long long statusStamp() const;
    // Waits until the service answered, or wrote a status since stamp.
    bool waitForAnswerOrStatus(unsigned long long stamp, int timeoutMs) const;
    // The number of the status file, if it holds one whole "Result=" line.
    std::optional<int> status() const;

    // What a status number tells a user, and the exit status a script can test for it.
    static QString describe(int status);
    static int exitStatusFor(int status);

private:
    QString commandPath;
    QString answerPath;
    QString statusPath;
};
