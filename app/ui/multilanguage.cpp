#include "multilanguage.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QTextStream>

void MultiLanguage::setTexts(Ui*, const char* language)
{
    // No detection of the desktop's language: the setting decides.
    QString systemLanguage;
    qDebug() << "System language is:" << systemLanguage;
    if (systemLanguage.trimmed().isEmpty())
        systemLanguage = QString::fromUtf8(language);

    // The factory files lie beside the program.
    const QString path = QCoreApplication::applicationDirPath() + "/config/lang/" + systemLanguage;
    std::vector<QString> keys;
    std::vector<QString> values;
    loadKeyValues(path, &keys, &values);
}

void MultiLanguage::loadKeyValues(QString path, std::vector<QString>* keys, std::vector<QString>* values)
{
    qDebug() << "Loading language from" << path;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qDebug() << "Loading language file failed!";
        return;
    }
    QTextStream in(&file);
    in.setEncoding(QStringConverter::Utf8);
    while (!in.atEnd()) {
        const QString line = in.readLine();
        // A line without "=" is its own key and value.
        const qsizetype split = line.indexOf('=');
        const QString key = (split < 0 ? line : line.left(split)).trimmed();
        const QString value = (split < 0 ? line : line.mid(split + 1)).trimmed();
        // Quotes around at least one character: anything shorter is no entry.
        if (key.size() < 3 || value.size() < 3)
            continue;
        keys->push_back(key.mid(1, key.size() - 2));
        values->push_back(value.mid(1, value.size() - 2).replace("\\n", "\n"));
    }
}
