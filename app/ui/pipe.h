#pragma once

#include <QObject>

// A relay for button ids from a QML element that has no signal of its own.
class Pipe : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

signals:
    void uiEvent(int id);

public slots:
    void onButtonClickedEvent(int id);
};
