#pragma once

#include "ioffsetcorrectionui.h"
#include "ui.h"

// The offset correction's screen: a white page with the loading indicator, and the clicks
// that the correction makes on it.
class OffsetCorrectionUi : public Ui, public IOffsetCorrectionUi {
    Q_OBJECT
public:
    OffsetCorrectionUi();

    void show(bool visible) override;
    void sendClickEventsTo(QObject* object, const char* slot) override;
};
