#pragma once

#include <QObject>
#include <QVariant>

#include <atomic>

class BlobContainer;
class QmlApplicationViewer;

// The base of every screen: loads a QML document from the resource into its own window,
// shows it (full-screen if asked), relays the document's events and calls its functions.
// The window is touched on the main thread only; show() and the invoke helpers may be
// called from any thread.
class Ui : public QObject {
    Q_OBJECT
public:
    Ui(const char* language, const char* qmlUrl, QObject* parent, bool fullScreen);
    ~Ui() override;

    QmlApplicationViewer* viewer = nullptr;
    QObject* root = nullptr;
    BlobContainer* blobContainer = nullptr;
    // Set by the QML side, read by a waiting worker thread.
    std::atomic<bool> uiDone{false};
    std::atomic<bool> shown{false};
    bool fullScreen;

    void show(bool visible);
    void showTiny();
    virtual void showLoading(bool on);
    void showDisturbanceDetected(bool on);

    static int getScreenWidth();
    static int getScreenHeight();

signals:
    void showSignal(bool visible);
    void uiEvent(int id);
    void mouseClicked(int x, int y);

public slots:
    virtual void onUiEvent(int id);
    virtual void onMouseClicked(int x, int y);
    void uiShow(bool visible);
    void onGotRequest(int id);
    void onUiDone();
    void close();
    void bringToFront();

protected:
    // Calls a function of the root: directly on the main thread, queued from any other.
    bool invokeRoot(const char* function);
    // Writes a root property in the order of the calls around it, from any thread.
    void setRootProperty(const char* name, const QVariant& value);
};
