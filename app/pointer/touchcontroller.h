#pragma once

#include "ipointercontroller.h"
#include "touchpoint.h"

#include <QObject>

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

class LinuxMouse;
class LinuxMouseController;
class QTimer;
class Touch;

// The primary output. In multi-touch mode (GS::pointerMode 1) a first finger is held back
// until its gesture is known: a still press becomes a right click through the mouse and
// leaves no contact; a press that moves away, gets company or ends is replayed to the
// touch device from its start. In any other mode every gesture goes to the mouse controller.
class TouchController : public QObject, public IPointerController {
    Q_OBJECT
public:
    Touch* touch;
    LinuxMouseController* mouseController;
    LinuxMouse* mouse;
    // Lives on the constructing thread; the handlers reach it through queued signals only.
    QTimer* rightClickTimer;
    EVector* startPoint;
    // Shared with onRightClick on the main thread; under pointLock.
    EVector* lastPoint;
    std::atomic<bool> isMoving{false};
    std::atomic<bool> isPressed{false};
    std::atomic<bool> isRightDown{false};
    int rightClickTolerance;
    int rightClickTime;
    int flushDelay = 2;
    std::vector<TouchPoint> pendingPoints;
    // Blob id to device slot, for every contact the device has seen go down.
    std::map<int, int> slotsById;

    // The parent is not taken: the controller belongs to the facade, not to a Qt tree.
    explicit TouchController(QObject* parent = nullptr);
    // Uses the given device, which it then owns.
    explicit TouchController(Touch* device);
    ~TouchController() override;

    void handleDown(EVector pos, int id) override;
    void handleMove(EVector pos, int id) override;
    void handleUp(EVector pos, int id) override;
    void reset() override;

    // Screen pixels to device units over the desktop, wrapped to 16 bits as the device takes them.
    static int toDeviceX(double x);
    static int toDeviceY(double y);

signals:
    void startRightClickTimer();
    void stopRightClickTimer();

public slots:
    void onRightClick();
    void onStartRightClickTimer();
    void onStopRightClickTimer();

private:
    std::mutex pointLock;
    void setLastPoint(const EVector& pos);
    // Replays the held-back points to the device, flushDelay apart.
    void flush(bool fromUp);
    void sendMove(double x, double y, int id);
};
