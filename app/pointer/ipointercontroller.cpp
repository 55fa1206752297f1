#include "ipointercontroller.h"

#include "globalsettings.h"

void IPointerController::newBlob(Blob* blob, std::vector<Blob*>, unsigned char*)
{
    if (!enabled)
        return;
    // A blob off the screen sends neither down nor move, but its loss always goes on,
    // so that no contact stays open.
    if (blob->state != 1) {
        const GS* gs = GS::instance();
        if (blob->isOutOfScreen(gs->screenWidth, gs->screenHeight))
            return;
    }
    const EVector pos(blob->fx, blob->fy);
    switch (blob->state) {
    case 0: handleDown(pos, blob->sessionId); break;
    case 2: handleMove(pos, blob->sessionId); break;
    case 1: handleUp(pos, blob->sessionId); break;
    default: break;
    }
}

void IPointerController::newOutsideBlob(Blob* blob, std::vector<Blob*>, unsigned char*)
{
    if (!enabled)
        return;
    const EVector pos(blob->fx, blob->fy);
    switch (blob->state) {
    case 0: handleDownOutsideScreen(pos, blob->sessionId); break;
    case 2: handleMoveOutsideScreen(pos, blob->sessionId); break;
    case 1: handleUpOutsideScreen(pos, blob->sessionId); break;
    default: break;
    }
}
