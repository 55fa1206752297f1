#pragma once

#include "ipointercontroller.h"

#include <QList>

#include <atomic>

// The one controller registered with the facade: repeats every gesture to the
// outputs of the selected list. It owns the outputs.
class MultiPointerController : public IPointerController {
public:
    QList<IPointerController*> primaryControllers;
    QList<IPointerController*> secondaryControllers;
    std::atomic<bool> usePrimary{true};

    MultiPointerController() = default;
    ~MultiPointerController() override;
    MultiPointerController(const MultiPointerController&) = delete;
    MultiPointerController& operator=(const MultiPointerController&) = delete;

    void addPrimaryController(IPointerController* controller);
    void addSecondaryController(IPointerController* controller);
    // Neither tells the outputs anything: a gesture begun on one list ends on the other.
    void enablePrimary() { usePrimary = true; }
    void enableSecondary() { usePrimary = false; }

    void handleDown(EVector pos, int id) override;
    void handleMove(EVector pos, int id) override;
    void handleUp(EVector pos, int id) override;
    void handleDownOutsideScreen(EVector pos, int id) override;
    void handleMoveOutsideScreen(EVector pos, int id) override;
    void handleUpOutsideScreen(EVector pos, int id) override;
    void mouseWheelUp() override;
    void mouseWheelDown() override;
    void keyPress(std::string key) override;
    // Reaches every output of both lists, whatever list is selected.
    void reset() override;

private:
    template <typename Call> void forSelected(Call call);
};
