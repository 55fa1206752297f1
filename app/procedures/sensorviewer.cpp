#include "sensorviewer.h"

#include "globalsettings.h"
#include "iimagesource.h"
#include "isensorviewerui.h"

#include <QDebug>
#include <QTimer>

namespace {

constexpr int drawPeriodMs = 10;
constexpr int exposureStep = 10;
// A step that would leave these bounds is ignored.
constexpr int highestExposure = 998;
constexpr int lowestExposure = 1;

} // namespace

SensorViewer::SensorViewer(ISensorViewerUi* ui, IImageSource* source)
    : ui(ui), source(source), drawTimer(new QTimer(this))
{
    ui->sendEventsTo(this, SLOT(onUiEvent(int)));
    connect(drawTimer, &QTimer::timeout, this, &SensorViewer::drawImage);
}

SensorViewer::~SensorViewer()
{
    drawTimer->stop();
    delete drawTimer;
}

void SensorViewer::start()
{
    ui->show(true);
    ui->printExposure(source->getExposure());
    // About the frame period: getImage() waits for the next frame, so no frame is shown twice.
    drawTimer->start(drawPeriodMs);
}

void SensorViewer::stop()
{
    drawTimer->stop();
    ui->show(false);
    emit exitted();
}

bool SensorViewer::isDebugging() const
{
    return debugging;
}

void SensorViewer::drawImage()
{
    const GS* gs = GS::instance();
    ui->showImage(source->getImage(), gs->sensorWidth, gs->sensorHeight);
}

void SensorViewer::changeExposure(int step)
{
    const int exposure = source->getExposure() + step;
    if (exposure > highestExposure || exposure < lowestExposure)
        return;
    source->setExposure(exposure);
    ui->printExposure(exposure);
}

void SensorViewer::onUiEvent(int id)
{
    switch (id) {
    case 1:
    case 7:
    case 13:
        stop();
        break;
    case 3:
        source->switchFilter();
        break;
    case 4:
        changeExposure(exposureStep);
        break;
    case 6:
        changeExposure(-exposureStep);
        break;
    case 8:
        debugging = !debugging;
        qDebug() << "CTRL + D pressed, debugging" << debugging;
        break;
    default:
        break;
    }
}
