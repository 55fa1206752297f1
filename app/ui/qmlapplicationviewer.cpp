#include "qmlapplicationviewer.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QQmlEngine>
#include <QUrl>

struct QmlApplicationViewer::Private {
    QString mainQmlFile;

    static QString adjustPath(const QString& path)
    {
        if (QDir::isAbsolutePath(path))
            return path;
        const QString dir = QCoreApplication::applicationDirPath();
        const QString beside = QString("%1/%2").arg(dir, path);
        if (QFileInfo::exists(beside))
            return beside;
        return QString("%1/../%2").arg(dir, path);
    }
};

QmlApplicationViewer::QmlApplicationViewer(QWindow* parent)
    : QQuickView(parent)
    , d(std::make_unique<Private>())
{
    connect(engine(), &QQmlEngine::quit, this, &QWindow::close);
    setResizeMode(QQuickView::SizeRootObjectToView);
}

QmlApplicationViewer::~QmlApplicationViewer() = default;

void QmlApplicationViewer::setMainQmlFile(const QString& file)
{
    d->mainQmlFile = Private::adjustPath(file);
    setSource(QUrl::fromLocalFile(d->mainQmlFile));
}

void QmlApplicationViewer::addImportPath(const QString& path)
{
    engine()->addImportPath(Private::adjustPath(path));
}

void QmlApplicationViewer::showExpanded()
{
    show();
}

bool QmlApplicationViewer::event(QEvent* event)
{
    // The quick window would tear its scene down on a close; the screen's owner decides.
    if (event->type() == QEvent::Close) {
        closeEvent(static_cast<QCloseEvent*>(event));
        return true;
    }
    return QQuickView::event(event);
}

void QmlApplicationViewer::closeEvent(QCloseEvent* event)
{
    emit closeEv();
    event->ignore();
}
