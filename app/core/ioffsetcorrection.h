#pragma once

#include <QObject>

// Finds and corrects an offset of the desktop's scaling; it closes its own screen.
class IOffsetCorrection : public QObject {
    Q_OBJECT
public:
    ~IOffsetCorrection() override = default;
    virtual void start() = 0;

signals:
    void finished();
};
