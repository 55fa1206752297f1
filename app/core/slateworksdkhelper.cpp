#include "slateworksdkhelper.h"

#include "filehelper.h"

void SlateworkSDKHelper::hideSlateworkAnnotationToolbar()
{
    startIfPresent(hidePath);
}

void SlateworkSDKHelper::showSlateworkAnnotationToolbar()
{
    startIfPresent(showPath);
}

void SlateworkSDKHelper::startIfPresent(const QString& path)
{
    if (!FileHelper::fileExists(path.toLocal8Bit().constData()))
        return;
    process.start(path, QStringList(), QIODevice::ReadWrite);
}
