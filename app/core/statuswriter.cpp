#include "statuswriter.h"

#include "atomicwrite.h"
#include "globalsettings.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

StatusWriter* StatusWriter::instance()
{
    // Statuses come from the main thread, workers and the USB thread.
    static StatusWriter* self = new StatusWriter();
    return self;
}

StatusWriter::StatusWriter()
{
    const QString dir = QFileInfo(QString::fromStdString(GS::instance()->statusFilePath)).absolutePath();
    if (!QDir(dir).exists()) {
        qDebug() << "Status file directory does not exists, creating: " << dir;
        QDir().mkpath(dir);
    }
}

void StatusWriter::write(int value)
{
    const QString path = QString::fromStdString(GS::instance()->statusFilePath);
    const QByteArray text = "Result=" + QByteArray::number(value);
    qDebug() << "writing into" << QFileInfo(path).fileName() << text;
    // The menu reads the file at any moment: it must never see half a status.
    if (!writeFileWhole(path, text))
        qDebug() << "File open failed " << path;
}
