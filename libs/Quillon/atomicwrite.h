#pragma once

#include <QByteArray>
#include <QSaveFile>
#include <QString>

// Writes a whole file beside the old one and renames it over, so that a reader never sees it
// half written and a crash or a full disk keeps the former file. False when nothing changed.
inline bool writeFileWhole(const QString& path, const QByteArray& bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // A short write shows only when the buffer goes to disk; commit() alone renames regardless.
    if (file.write(bytes) != bytes.size() || !file.flush()) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}
