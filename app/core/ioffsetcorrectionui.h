#pragma once

class QObject;

// The screen of the offset correction as its procedure sees it.
class IOffsetCorrectionUi {
public:
    virtual void show(bool visible) = 0;
    virtual void sendClickEventsTo(QObject* object, const char* slot) = 0;
    virtual ~IOffsetCorrectionUi() = default;
};
