#pragma once

#include <QObject>

#include <atomic>

// Polls the desktop size once a second and tells when it changes.
class ResolutionChangeNotifier : public QObject {
    Q_OBJECT
public:
    static ResolutionChangeNotifier* instance(QObject* parent = nullptr);

    // The desktop as one rectangle over all screens; (0, 0) without a display.
    static void desktopSize(int* width, int* height);

signals:
    void resolutionChanged(int width, int height);

public slots:
    void listenToResolution();

private:
    explicit ResolutionChangeNotifier(QObject* parent);
    int width = 0;
    int height = 0;
    static std::atomic<ResolutionChangeNotifier*> self;
};
