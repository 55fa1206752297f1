#include "multipointercontroller.h"

MultiPointerController::~MultiPointerController()
{
    for (IPointerController* c : primaryControllers)
        delete c;
    for (IPointerController* c : secondaryControllers)
        delete c;
}

void MultiPointerController::addPrimaryController(IPointerController* controller)
{
    if (controller)
        primaryControllers.append(controller);
}

void MultiPointerController::addSecondaryController(IPointerController* controller)
{
    if (controller)
        secondaryControllers.append(controller);
}

template <typename Call> void MultiPointerController::forSelected(Call call)
{
    // An implicitly shared copy: additions during the walk do not disturb it.
    const QList<IPointerController*> selected = usePrimary ? primaryControllers : secondaryControllers;
    for (IPointerController* c : selected)
        call(c);
}

void MultiPointerController::handleDown(EVector pos, int id)
{
    forSelected([&](IPointerController* c) { c->handleDown(pos, id); });
}

void MultiPointerController::handleMove(EVector pos, int id)
{
    forSelected([&](IPointerController* c) { c->handleMove(pos, id); });
}

void MultiPointerController::handleUp(EVector pos, int id)
{
    forSelected([&](IPointerController* c) { c->handleUp(pos, id); });
}

void MultiPointerController::handleDownOutsideScreen(EVector pos, int id)
{
    forSelected([&](IPointerController* c) { c->handleDownOutsideScreen(pos, id); });
}

void MultiPointerController::handleMoveOutsideScreen(EVector pos, int id)
{
    forSelected([&](IPointerController* c) { c->handleMoveOutsideScreen(pos, id); });
}

void MultiPointerController::handleUpOutsideScreen(EVector pos, int id)
{
    forSelected([&](IPointerController* c) { c->handleUpOutsideScreen(pos, id); });
}

void MultiPointerController::mouseWheelUp()
{
    forSelected([](IPointerController* c) { c->mouseWheelUp(); });
}

void MultiPointerController::mouseWheelDown()
{
    forSelected([](IPointerController* c) { c->mouseWheelDown(); });
}

void MultiPointerController::keyPress(std::string key)
{
    forSelected([&](IPointerController* c) { c->keyPress(key); });
}

void MultiPointerController::reset()
{
    const QList<IPointerController*> primary = primaryControllers;
    const QList<IPointerController*> secondary = secondaryControllers;
    for (IPointerController* c : primary)
        c->reset();
    for (IPointerController* c : secondary)
        c->reset();
}
