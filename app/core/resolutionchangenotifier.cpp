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
    desktopSize(&width, &height);
    WorkerThread::doWork(this, "1listenToResolution()", -1);
}

void ResolutionChangeNotifier::listenToResolution()
{
    for (;;) {
        WorkerThread::msleep(1000);
        int w, h;
        desktopSize(&w, &h);
        if (w != width || h != height) {
            qDebug() << "Resolution changed, notify";
            width = w;
            height = h;
            emit resolutionChanged(w, h);
        }
    }
}
