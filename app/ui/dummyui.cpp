#include "dummyui.h"

#include "qmlapplicationviewer.h"

DummyUi::DummyUi(const char* language)
    : Ui(language, "qrc:/qml/Calibration.qml", nullptr, false)
{
    viewer->setTitle("Dummy Viewer");
}

void DummyUi::show(bool visible)
{
    if (visible)
        showTiny();
    else
        Ui::show(false);
}
