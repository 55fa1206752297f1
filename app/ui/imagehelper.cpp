#include "imagehelper.h"

ImageHelper::ImageHelper(QObject* parent, QObject* target)
    : QObject(parent)
    , target(target)
{
}

void ImageHelper::updateImage() {}
