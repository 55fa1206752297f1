// Feeds arbitrary bytes to the command channel as the menu's command file, left over from
// before the start (first input byte odd) or written while the service runs. Whatever the
// bytes, a file whose first line is empty stays for the next look; any other file is taken,
// and what it gives is the command of its first non-blank byte, 1000 for a left-over one, or
// nothing.
#include "fuzzfile.h"
#include "ipclistener.h"
#include "quietqt.h"

#include <QByteArray>
#include <QFile>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static DiskFile file("fifo1");
    static const QString path = QString::fromLocal8Bit(file.path());
    if (size == 0)
        return 0;
    const bool leftOver = data[0] & 1;
    const QByteArray content(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1));
    file.write(data + 1, size - 1);

    const IpcListener::Command got = leftOver ? IpcListener::takeLeftOver(path) : IpcListener::take(path);

    const QByteArray firstLine = content.left(content.indexOf('\n') < 0 ? content.size() : content.indexOf('\n'));
    if (firstLine.isEmpty()) {
        if (got.id != -1 || !QFile::exists(path))
            std::abort();
        return 0;
    }
    if (QFile::exists(path))
        std::abort();
    int expected = 1000;
    if (!leftOver) {
        const QByteArray command = QString::fromUtf8(firstLine).trimmed().toUtf8();
        expected = command.isEmpty() ? -1 : IpcListener::commandFor(command.at(0)).id;
    }
    if (got.id != expected)
        std::abort();
    return 0;
}
