#pragma once

#include <QImage>
#include <QMutex>
#include <QQuickImageProvider>

// The picture behind "image://img/...": whatever id QML asks for, it gets the latest picture.
class GenericImageProvider : public QQuickImageProvider {
public:
    GenericImageProvider();
    ~GenericImageProvider() override;

    // Takes the picture over and deletes the former one.
    void setImage(QImage* image);
    QImage requestImage(const QString& id, QSize* size, const QSize& requestedSize) override;

private:
    QImage* image = nullptr;
    // Pictures come from the frame thread while QML reads on the main thread.
    QMutex mutex;
};
