#include "offsetcorrectionui.h"

#include "globalsettings.h"

#include <QDebug>

OffsetCorrectionUi::OffsetCorrectionUi()
    : Ui(GS::instance()->language, "qrc:/qml/Calibration.qml", nullptr, true)
{
    qDebug() << "offset correction ui  ";
}

void OffsetCorrectionUi::show(bool visible)
{
    Ui::show(visible);
    invokeRoot(visible ? "showOffsetCorrection" : "hideOffsetCorrection");
}

void OffsetCorrectionUi::sendClickEventsTo(QObject* object, const char* slot)
{
    // The clicks come from the correction's own emulated touches while it waits on a
    // worker thread, so they must not run inside the click.
    if (root)
        connect(root, SIGNAL(mouseClicked(int, int)), object, slot, Qt::QueuedConnection);
}
