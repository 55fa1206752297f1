#pragma once

#include <QObject>

// Keeps the object that shows pictures; the screens push their pictures themselves.
class ImageHelper : public QObject {
    Q_OBJECT
public:
    ImageHelper(QObject* parent, QObject* target);

    QObject* target;

public slots:
    void updateImage();
};
