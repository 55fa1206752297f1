#pragma once

#include "ipointercontroller.h"

#include <QObject>

#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

class LinuxMouse;
class QTimer;

// Single-pointer output: all contacts drive one mouse. The button goes down only once
// a press has moved beyond the tolerance or is lifted; a press that stays still for the
// right-click time becomes a right click.
class LinuxMouseController : public QObject, public IPointerController {
    Q_OBJECT
public:
    LinuxMouse* mouse;
    // Lives on the constructing thread; the handlers reach it through queued signals only.
    QTimer* rightClickTimer;
    EVector* startPoint;
    // Shared with onRightClick on the main thread; under pointLock.
    EVector* lastPoint;
    // Positions since the down, oldest first, the down included.
    std::vector<EVector> path;
    std::atomic<bool> isMoving{false};
    std::atomic<bool> isPressed{false};
    std::atomic<bool> hadPress{false};
    std::atomic<bool> isRightDown{false};
    std::chrono::steady_clock::time_point lastDownTime;
    // Tolerances as diagonals in pixels; written by onResolutionChanged on the main thread.
    std::atomic<int> rightClickTolerance{0};
    std::atomic<int> rightClickTime{0};
    std::atomic<int> doubleClickTolerance{0};
    std::atomic<int> doubleClickTime{0};

    explicit LinuxMouseController(QObject* parent = nullptr);
    ~LinuxMouseController() override;

    void handleDown(EVector pos, int id) override;
    void handleMove(EVector pos, int id) override;
    void handleUp(EVector pos, int id) override;

signals:
    void startRightClickTimer();
    void stopRightClickTimer();

public slots:
    void onRightClick();
    void onStartRightClickTimer();
    void onStopRightClickTimer();
    // Takes the click settings anew; the running timer keeps its interval.
    void onResolutionChanged(int width, int height);

private:
    std::mutex pointLock;
    // Moves to the first point, presses the left button and walks the path again.
    void pressAndReplay();
};
