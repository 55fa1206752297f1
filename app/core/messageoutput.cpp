#include "messageoutput.h"

#include <QDate>
#include <QString>
#include <QTime>

#include <cstdio>

void myMessageOutput(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    QString line = QStringLiteral(": %1 (%2:%3, %4)")
                       .arg(text, QString::fromUtf8(context.file))
                       .arg(context.line)
                       .arg(QString::fromUtf8(context.function));
    switch (type) {
    case QtDebugMsg: line.prepend(QStringLiteral("Debug")); break;
    case QtWarningMsg: line.prepend(QStringLiteral("Warning")); break;
    case QtCriticalMsg: line.prepend(QStringLiteral("Critical")); break;
    case QtFatalMsg: line.prepend(QStringLiteral("Fatal")); break;
    default: break;
    }
    line.prepend(QDate::currentDate().toString(QStringLiteral("dd.MM.yyyy")) + ' '
                 + QTime::currentTime().toString() + QStringLiteral(": "));
    printf("%s\n", line.toLocal8Bit().constData());
    fflush(stdout);
}
