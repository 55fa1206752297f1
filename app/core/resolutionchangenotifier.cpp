#include "resolutionchangenotifier.h"

#include "workerthread.h"

#include <QDebug>
#include <QGuiApplication>
#include <QScreen>

std::atomic<ResolutionChangeNotifier*> ResolutionChangeNotifier::self{nullptr};

ResolutionChangeNotifier* ResolutionChangeNotifier::instance(QObject* parent)
{
    if (!self)
        self = new ResolutionChangeNotifier(parent);
    return self;
}

void ResolutionChangeNotifier::desktopSize(int* w, int* h)
{
    *w = 0;
    *h = 0;
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        return;
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen)
        return;
    const QRect desktop = screen->virtualGeometry();
    *w = desktop.right() - desktop.left() + 1;
    *h = desktop.bottom() - desktop.top() + 1;
}

ResolutionChangeNotifier::ResolutionChangeNotifier(QObject* parent) : QObject(parent)
{
    takeDesktopSize();
    width = desktopWidth;
    height = desktopHeight;
    if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        for (QScreen* screen : QGuiApplication::screens())
            watch(screen);
        connect(app, &QGuiApplication::screenAdded, this, [this](QScreen* s) {
            watch(s);
            takeDesktopSize();
        });
        connect(app, &QGuiApplication::screenRemoved, this, &ResolutionChangeNotifier::takeDesktopSize);
        connect(app, &QGuiApplication::primaryScreenChanged, this, &ResolutionChangeNotifier::takeDesktopSize);
    }
    WorkerThread::doWork(this, "1listenToResolution()", -1);
}

void ResolutionChangeNotifier::watch(QScreen* screen)
{
    connect(screen, &QScreen::virtualGeometryChanged, this, &ResolutionChangeNotifier::takeDesktopSize);
}

void ResolutionChangeNotifier::takeDesktopSize()
{
    int w, h;
    desktopSize(&w, &h);
    desktopWidth = w;
    desktopHeight = h;
}

void ResolutionChangeNotifier::listenToResolution()
{
    for (;;) {
        WorkerThread::msleep(1000);
        const int w = desktopWidth;
        const int h = desktopHeight;
        if (w != width || h != height) {
            qDebug() << "Resolution changed, notify";
            width = w;
            height = h;
            emit resolutionChanged(w, h);
        }
    }
}
