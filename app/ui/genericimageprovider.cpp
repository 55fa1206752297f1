#include "genericimageprovider.h"

#include <QMutexLocker>

GenericImageProvider::GenericImageProvider()
    : QQuickImageProvider(QQuickImageProvider::Image)
{
}

GenericImageProvider::~GenericImageProvider()
{
    delete image;
}

void GenericImageProvider::setImage(QImage* newImage)
{
    QMutexLocker lock(&mutex);
    delete image;
    image = newImage;
}

QImage GenericImageProvider::requestImage(const QString&, QSize* size, const QSize&)
{
    QMutexLocker lock(&mutex);
    QImage copy = image ? image->copy() : QImage();
    if (size)
        *size = copy.size();
    return copy;
}
