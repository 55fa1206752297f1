#pragma once

#include <QObject>

// A guided procedure that ends with one status: the calibrations and the laser alignment.
// The facade deletes it after the queued finished() has reached the main thread.
class Procedure : public QObject {
    Q_OBJECT
public:
    ~Procedure() override = default;

signals:
    void finished(int status);
};
