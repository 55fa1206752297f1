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
    // The receiver handles each click after the document has finished with it.
    if (root)
        connect(root, SIGNAL(mouseClicked(int, int)), object, slot, Qt::QueuedConnection);
}
