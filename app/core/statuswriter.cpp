#include "statuswriter.h"

#include "globalsettings.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

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
    // Written beside and renamed over: the menu never reads half a status.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        qDebug() << "File open failed " << path;
        return;
    }
    file.write(text);
    if (!file.commit())
        qDebug() << "File write failed " << path;
}
