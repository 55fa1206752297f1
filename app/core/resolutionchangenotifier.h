#pragma once

#include <QObject>

#include <atomic>

class QScreen;

// Tells, at most once a second, when the desktop size has changed.
class ResolutionChangeNotifier : public QObject {
    Q_OBJECT
public:
    static ResolutionChangeNotifier* instance(QObject* parent = nullptr);

    // The desktop as one rectangle over all screens; (0, 0) without a display.
    // Main thread only: screens belong to it.
    static void desktopSize(int* width, int* height);

signals:
    void resolutionChanged(int width, int height);

public slots:
    void listenToResolution();

private:
    explicit ResolutionChangeNotifier(QObject* parent);
    void watch(QScreen* screen);
    void takeDesktopSize();

    // Written on the main thread from the screens' signals, polled by the watcher thread,
    // so that the watcher never touches a screen that the main thread may be tearing down.
    std::atomic<int> desktopWidth{0};
    std::atomic<int> desktopHeight{0};
    int width = 0;
    int height = 0;
    static std::atomic<ResolutionChangeNotifier*> self;
};
