#include "menuchannel.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSaveFile>
#include <QThread>

#include <sys/stat.h>

MenuChannel::MenuChannel(QString commandPath_, QString answerPath_, QString statusPath_)
    : commandPath(std::move(commandPath_)), answerPath(std::move(answerPath_)), statusPath(std::move(statusPath_))
{
}

namespace {

bool waitFor(int timeoutMs, const auto& done)
{
    QElapsedTimer waited;
    waited.start();
    while (!done()) {
        if (waited.elapsed() > timeoutMs)
            return false;
        QThread::msleep(10);
    }
    return true;
}

} // namespace

bool MenuChannel::send(char command, int timeoutMs)
{
    // A second command written before the first was taken would replace it unseen.
    if (!waitUntilTaken(timeoutMs))
        return false;
    QFile::remove(answerPath);
    // Renamed into place, so that the service never finds the file made but not yet written.
    QSaveFile file(commandPath);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(QByteArray(1, command) + '\n');
    return file.commit();
}

bool MenuChannel::waitUntilTaken(int timeoutMs) const
{
    return waitFor(timeoutMs, [this] { return !QFile::exists(commandPath); });
}

bool MenuChannel::waitForAnswer(int timeoutMs) const
{
    return waitFor(timeoutMs, [this] { return QFile::exists(answerPath); });
}

unsigned long long MenuChannel::statusStamp() const
{
    // A freed inode may come back for the next file: the time of the write tells them apart.
    struct stat st;
    if (::stat(QFile::encodeName(statusPath).constData(), &st) != 0)
        return 0;
    return (static_cast<unsigned long long>(st.st_ino) << 32) ^ static_cast<unsigned long long>(st.st_mtim.tv_sec) * 1000000000ULL
        ^ static_cast<unsigned long long>(st.st_mtim.tv_nsec);
}

bool MenuChannel::waitForAnswerOrStatus(unsigned long long stamp, int timeoutMs) const
{
    return waitFor(timeoutMs, [&] { return QFile::exists(answerPath) || statusStamp() != stamp; });
}

std::optional<int> MenuChannel::status() const
{
    QFile file(statusPath);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray text = file.readAll();
    if (!text.startsWith("Result="))
        return std::nullopt;
    bool ok = false;
    const int value = text.mid(7).toInt(&ok);
    return ok ? std::optional<int>(value) : std::nullopt;
}

QString MenuChannel::describe(int status)
{
    switch (status) {
    case 0: return "ready";
    case -1: return "no device";
    case -2: return "light disturbance";
    case -3: return "cancelled";
    case -4: return "calibration failed";
    case -5: return "refused: laser alignment needs a finger calibration";
    case -6: return "not calibrated";
    case -11: return "a procedure is starting";
    case -13: return "a command was left over from before the start";
    case -14: return "refused: not calibrated";
    default: return QString("unknown status %1").arg(status);
    }
}

int MenuChannel::exitStatusFor(int status)
{
    switch (status) {
    case 0:
    case -11:
    case -13: return 0;
    case -5:
    case -6:
    case -14: return 3;
    case -2:
    case -3:
    case -4: return 4;
    case -1: return 5;
    default: return 1;
    }
}
