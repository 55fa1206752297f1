#pragma once

#include <QObject>

// Shows the live camera picture until the user leaves it.
class ISensorViewer : public QObject {
    Q_OBJECT
public:
    ~ISensorViewer() override = default;
    virtual void start() = 0;

signals:
    void exitted();
};
