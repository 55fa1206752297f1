#pragma once

#include <QQuickView>
#include <QString>

#include <memory>

class QCloseEvent;

// The window of a QML screen. It never closes by itself: a close request becomes closeEv(),
// and the screen that owns it decides.
class QmlApplicationViewer : public QQuickView {
    Q_OBJECT
public:
    explicit QmlApplicationViewer(QWindow* parent = nullptr);
    ~QmlApplicationViewer() override;

    // A relative path is taken under the program's folder, or one level above it.
    void setMainQmlFile(const QString& file);
    void addImportPath(const QString& path);
    void showExpanded();

signals:
    void closeEv();

protected:
    bool event(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
