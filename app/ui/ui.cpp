#include "ui.h"

#include "blobcontainer.h"
#include "ipclistener.h"
#include "multilanguage.h"
#include "qmlapplicationviewer.h"

#include <QDebug>
#include <QGuiApplication>
#include <QMetaObject>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QScreen>
#include <QThread>
#include <QUrl>

Ui::Ui(const char* language, const char* qmlUrl, QObject* parent, bool fullScreen)
    : QObject(parent)
    , fullScreen(fullScreen)
{
    connect(this, &Ui::showSignal, this, &Ui::uiShow);

    qmlRegisterType<BlobContainer>("com.zarvo", 1, 0, "BlobContainer");
    viewer = new QmlApplicationViewer();
    viewer->setSource(QUrl(qmlUrl));
    // The title tells a window manager and the menu whether the screen is up.
    viewer->setTitle("velora-main -visible");
    root = viewer->rootObject();

    if (fullScreen) {
        viewer->setFlags(Qt::CustomizeWindowHint | Qt::WindowStaysOnTopHint | Qt::FramelessWindowHint);
        viewer->setGeometry(QGuiApplication::primaryScreen()->geometry());
        if (root) {
            root->setProperty("width", getScreenWidth());
            root->setProperty("height", getScreenHeight());
        }
    }
    viewer->showExpanded();
    viewer->rootContext()->setContextProperty("uiCallback", this);
    if (root)
        blobContainer = root->findChild<BlobContainer*>("laserAlignDots");

    MultiLanguage::setTexts(this, language);

    connect(IpcListener::instance(), &IpcListener::received, this, &Ui::onUiEvent);
    if (root) {
        connect(root, SIGNAL(uiDone()), this, SLOT(onUiDone()));
        connect(root, SIGNAL(uiEvent(int)), this, SLOT(onUiEvent(int)));
        connect(root, SIGNAL(mouseClicked(int, int)), this, SLOT(onMouseClicked(int, int)));
    } else {
        qDebug() << "No root object in" << qmlUrl;
    }
    connect(viewer, &QmlApplicationViewer::closeEv, this, &Ui::close, Qt::QueuedConnection);
}

Ui::~Ui()
{
    qDebug() << "delete ui";
    delete viewer;
}

void Ui::show(bool visible)
{
    emit showSignal(visible);
}

void Ui::uiShow(bool visible)
{
    if (visible) {
        if (fullScreen)
            viewer->showFullScreen();
        else
            viewer->showNormal();
        shown = true;
    } else {
        viewer->setTitle("velora-main -hidden");
        viewer->hide();
        shown = false;
    }
}

void Ui::showTiny()
{
    viewer->setFlags(Qt::CustomizeWindowHint | Qt::Tool);
    qDebug() << "dummy viewer show tiny ####################";
    viewer->setGeometry(-2, -2, 1, 1);
    if (root) {
        root->setProperty("width", 1);
        root->setProperty("height", 1);
    }
    viewer->showNormal();
}

void Ui::showLoading(bool on)
{
    uiDone = false;
    invokeRoot(on ? "showLoading" : "hideLoading");
    // On a worker thread the QML answers while this waits; on the main thread it has
    // answered already, or never will within the wait.
    for (int step = 0; step < 50 && !uiDone; ++step)
        QThread::msleep(100);
}

void Ui::showDisturbanceDetected(bool on)
{
    invokeRoot(on ? "showDisturbanceDetected" : "hideDisturbanceDetected");
}

int Ui::getScreenWidth()
{
    const QRect r = QGuiApplication::primaryScreen()->geometry();
    return r.right() - r.left() + 1;
}

int Ui::getScreenHeight()
{
    const QRect r = QGuiApplication::primaryScreen()->geometry();
    return r.bottom() - r.top() + 1;
}

void Ui::onUiEvent(int id)
{
    emit uiEvent(id);
}

void Ui::onMouseClicked(int x, int y)
{
    emit mouseClicked(x, y);
}

void Ui::onGotRequest(int id)
{
    if (id == 13)
        onUiEvent(1);
}

void Ui::onUiDone()
{
    uiDone = true;
}

void Ui::close()
{
    // A window closed from outside acts as Esc.
    onUiEvent(1);
}

void Ui::bringToFront()
{
    viewer->requestActivate();
    viewer->raise();
    if (QQuickItem* item = viewer->contentItem())
        item->forceActiveFocus(Qt::OtherFocusReason);
}

bool Ui::invokeRoot(const char* function)
{
    if (!root)
        return false;
    return QMetaObject::invokeMethod(root, function, Qt::AutoConnection);
}

void Ui::setRootProperty(const char* name, const QVariant& value)
{
    if (!root)
        return;
    QObject* target = root;
    QMetaObject::invokeMethod(
        root, [target, name, value] { target->setProperty(name, value); }, Qt::AutoConnection);
}
