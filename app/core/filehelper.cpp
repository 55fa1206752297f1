#include "filehelper.h"

#include "globalsettings.h"

#include <QDir>
#include <QFileInfo>

#include <cstdio>
#include <fstream>

bool FileHelper::fileExists(const char* path)
{
    return std::ifstream(path).good();
}

void FileHelper::cleanVeloraCalibFiles()
{
    const GS* gs = GS::instance();
    for (const std::string& path : {gs->stylusCalibrationPath, gs->fingerCalibrationPath})
        if (fileExists(path.c_str()))
            std::remove(path.c_str());
}

void FileHelper::cleanWorkingDirectory()
{
    const QString dir = QFileInfo(QString::fromStdString(GS::instance()->userSettingsPath)).absolutePath();
    printf("directory %s \n", dir.toLocal8Bit().constData());
    if (!QDir(dir).exists()) {
        printf("creating directory \n");
        QDir().mkpath(dir);
    }
    for (const char* name : {"fifo1", "fifo2", "refifo"})
        QFile::remove(dir + QDir::separator() + name);
}
