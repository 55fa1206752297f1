#pragma once

#include "qmlapplicationviewer.h"

// A white full-screen page that says "LOADING...", shown from any thread.
class LoadingScreen : public QmlApplicationViewer {
    Q_OBJECT
public:
    LoadingScreen();

    void showScreen(bool visible);

signals:
    void showSignal(bool visible);

public slots:
    void uiShow(bool visible);
};
