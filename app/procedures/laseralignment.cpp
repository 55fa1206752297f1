#include "laseralignment.h"

#include "blob.h"
#include "calibration.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "iblobemitter.h"
#include "idisturbancechecker.h"
#include "ipointercontroller.h"
#include "workerthread.h"

#include <QDebug>

#include <cmath>
#include <cstdio>

namespace {

constexpr int state(AlignState s)
{
    return static_cast<int>(s);
}

} // namespace

LaserAlignment::LaserAlignment(IBlobEmitter* emitter, IPointerController* pointer, ILaserAlignUi* ui,
                               IDisturbanceChecker* disturbanceChecker)
    : emitter(emitter)
    , pointer(pointer)
    , ui(ui)
    , disturbanceChecker(disturbanceChecker)
    , dotTolerance(GS::instance()->screenHeight / 7.0)
{
    if (!emitter)
        return;
    Calibration* calibration = emitter->getCalibration();
    if (!calibration)
        return;
    // The shifts are learnt afresh: a shift left from an earlier run would bias every dot.
    calibration->shifts.assign(dotCount, EVector(0, 0));
    calibration->extras.assign(dotCount, -1.0);
    emitter->updateShiftCorrection();
}

LaserAlignment::~LaserAlignment()
{
    ui->stopEventsTo(this);
    emitter->removeBlobListener(this);
    emitter->removeBlobListener(disturbanceChecker);
    if (pointer)
        pointer->enabled = true;
    delete disturbanceChecker;
    delete ui;
}

void LaserAlignment::start(int firstStep)
{
    // The alignment's touches must not reach the desktop.
    if (pointer)
        pointer->enabled = false;
    emitter->addBlobListener(this);
    GS* gs = GS::instance();
    // Topping up the background would learn the held finger as background.
    savedTopUpFrames = gs->stylusBgTopUpFrames;
    gs->stylusBgTopUpFrames = 0;
    ui->sendEventsTo(this, SLOT(onUiEvent(int)));
    step = firstStep;
    ui->show(true);
    initAlign();
}

void LaserAlignment::initAlign()
{
    setSurfaceFlatness(SurfaceFlatness::Even);
    {
        std::lock_guard hold(lock);
        setDotsLocked(dotMarginRatio, dotMarginRatio);
        accuracies.assign(dotCount, 0);
        samples.assign(dotCount, {});
    }
    continueStep();
}

void LaserAlignment::continueStep()
{
    switch (++step) {
    case 0:
        showVerticalAlign(false);
        break;
    case 1:
        showHorizontalAlign();
        break;
    case 2:
        showAutoCorrection();
        break;
    case 3:
        // On light the retry view is up and the step stays.
        if (!isDisturbance())
            dispose();
        break;
    default:
        break;
    }
}

void LaserAlignment::retry()
{
    ui->showLaserAlignRetryCancelView(false);
    step = -1;
    LaserDistance distance;
    {
        std::lock_guard hold(lock);
        distance = dotDistance;
    }
    setDotDistance(distance);
    continueStep();
}

void LaserAlignment::dispose()
{
    disposeRequested = true;
    if (checking)
        return;
    if (disposed.exchange(true))
        return;
    emitter->removeBlobListener(this);
    GS::instance()->stylusBgTopUpFrames = savedTopUpFrames;
    if (step < 3)
        exitCode = 1;
    ui->show(false);
    emit finished(-exitCode);
}

void LaserAlignment::onUiEvent(int id)
{
    printf("Got an Ui Event, id=%d.\n", id);
    fflush(stdout);
    switch (id) {
    case 0:
        initAlign();
        break;
    case 1:
    case 5000:
        dispose();
        break;
    case 5004:
        continueStep();
        break;
    case 5011:
        retry();
        break;
    case 6001:
    case 6002:
    case 6003:
        setDotDistance(static_cast<LaserDistance>(id));
        break;
    case 6004:
    case 6005:
    case 6006:
        setSurfaceFlatness(static_cast<SurfaceFlatness>(id));
        break;
    default:
        break;
    }
}

void LaserAlignment::setDots(double divisorX, double divisorY)
{
    std::lock_guard hold(lock);
    setDotsLocked(divisorX, divisorY);
}

void LaserAlignment::setDotsLocked(double divisorX, double divisorY)
{
    const GS* gs = GS::instance();
    const double width = gs->screenWidth, height = gs->screenHeight;
    marginX = width / divisorX;
    marginY = height / divisorY;
    const int side = static_cast<int>(std::sqrt(static_cast<double>(dotCount)));
    dots = GridHelper::CalcVerticesNormal(side, side, marginX, marginY, width, height);
    ui->showLaserAlignDots(dots);
}

void LaserAlignment::setDotDistance(LaserDistance distance)
{
    std::lock_guard hold(lock);
    dotDistance = distance;
    const double divisorY = distance == LaserDistance::Close ? 3.0 : distance == LaserDistance::Medium ? 5.0 : 10.0;
    setDotsLocked(dotMarginRatio, divisorY);
    if (alignState == state(AlignState::Vertical))
        showVerticalAlignLocked(true);
}

void LaserAlignment::setSurfaceFlatness(SurfaceFlatness value)
{
    const GS* gs = GS::instance();
    std::lock_guard hold(lock);
    flatness = value == SurfaceFlatness::Uneven     ? gs->flatnessLoose
               : value == SurfaceFlatness::Moderate ? gs->flatnessMedium
                                                    : gs->flatnessTight;
    if (alignState == state(AlignState::Vertical))
        showVerticalAlignLocked(true);
}

void LaserAlignment::showVerticalAlign(bool keepScreen)
{
    std::lock_guard hold(lock);
    showVerticalAlignLocked(keepScreen);
}

void LaserAlignment::showVerticalAlignLocked(bool keepScreen)
{
    alignState = state(AlignState::Vertical);
    if (!keepScreen)
        ui->showAlignState(AlignState::Vertical);
    activeDots = {5};
    ui->showHandOnDot(5, false);
    accuracyThreshold = static_cast<int>(GS::instance()->verticalAlignLimit);
    ui->setLaserAlignAccuracyThreshold(accuracyThreshold);
    ui->showActiveLaserAlignDots(activeDots);
    ui->showLaserAlignInfo(5, DotInfoType::GearA);
    ui->showLaserAlignInfo(2, DotInfoType::None);
    ui->showLaserAlignInfo(8, DotInfoType::None);
}

void LaserAlignment::showHorizontalAlign()
{
    std::lock_guard hold(lock);
    setDotsLocked(6.0, 3.0);
    ui->showHandOnDot(-1, false);
    ui->setLaserAlignAccuracy(0, 5);
    horizontalDot = 2;
    ui->showLaserAlignInfo(horizontalDot, DotInfoType::GearB);
    ui->showHandOnDot(horizontalDot, false);
    activeDots = {horizontalDot};
    ui->showActiveLaserAlignDots(activeDots);
    ui->setLaserAlignAccuracy(0, horizontalDot);
    ui->setCustomAccuracyText(horizontalDot, QString());
    alignState = state(AlignState::Horizontal);
    ui->showAlignState(AlignState::Horizontal);
}

void LaserAlignment::showAutoCorrection()
{
    {
        std::lock_guard hold(lock);
        ui->setDotVisible(9, false);
        setDotsLocked(dotMarginRatio, dotMarginRatio);
        alignState = state(AlignState::AutoCorrection);
        // No dot takes a finger while the check listens.
        activeDots.clear();
    }
    if (isDisturbance())
        return;
    std::lock_guard hold(lock);
    activeDots.clear();
    for (int dot = 0; dot < dotCount; ++dot) {
        activeDots.push_back(dot);
        ui->showLaserAlignInfo(dot, DotInfoType::None);
        ui->setCustomAccuracyText(dot, QString());
    }
    ui->showHandOnDot(5, false);
    accuracyThreshold = static_cast<int>(GS::instance()->autoCorrectionLimit);
    ui->setLaserAlignAccuracyThreshold(accuracyThreshold);
    ui->showActiveLaserAlignDots(activeDots);
    ui->showAlignState(AlignState::AutoCorrection);
}

bool LaserAlignment::isDisturbance()
{
    ui->showLoading(true);
    emitter->addBlobListener(disturbanceChecker);
    const bool disturbed = disturbanceChecker->checkIsDisturbanceOnScreen();
    emitter->removeBlobListener(disturbanceChecker);
    ui->showLoading(false);
    if (!disturbed)
        return false;
    qDebug() << "Light disturbance in laser alignment";
    ui->showLaserAlignRetryCancelView(true);
    return true;
}

void LaserAlignment::resetAccuracies()
{
    // Dot 1 each time: only that dot's figure is taken back.
    for (int i = 0; i < dotCount; ++i)
        ui->setLaserAlignAccuracy(0, 1);
}

void LaserAlignment::newBlobList(std::vector<Blob*> all)
{
    if (all.empty())
        return;
    const GS* gs = GS::instance();
    const double height = gs->screenHeight;
    std::unique_lock hold(lock);
    if (dots.empty() || activeDots.empty())
        return;
    for (Blob* blob : all) {
        const EVector c = blob->fcenter();
        int slot = -1, dot = -1;
        double nearest = 0;
        for (size_t i = 0; i < activeDots.size(); ++i) {
            const int k = activeDots[i];
            if (k < 0 || k >= static_cast<int>(dots.size()))
                continue;
            const double distance = (dots[k] - c).length();
            if (slot < 0 || distance < nearest) {
                slot = static_cast<int>(i);
                dot = k;
                nearest = distance;
            }
        }
        if (slot < 0)
            continue;
        double d = nearest;
        // The mechanical steps aim at a point a flatness-given distance off the dot: a higher
        // curtain clears an uneven surface.
        if (alignState != state(AlignState::AutoCorrection))
            d = std::fabs(d - height * flatness);
        if (!(d < dotTolerance))
            continue;
        const double raw = (1.0 - d / dotTolerance) * 100.0;
        const int accuracy = static_cast<int>(std::lround(raw));
        if (dot < static_cast<int>(accuracies.size()))
            accuracies[dot] = accuracy;

        if (alignState != state(AlignState::AutoCorrection)) {
            // The fitter decides with Continue when the dot is green enough.
            ui->setLaserAlignAccuracy(accuracy, dot);
            ui->showHandOnDot(-1, false);
            continue;
        }

        if (std::ceil(raw) >= gs->autoCorrectionLimit) {
            activeDots.erase(activeDots.begin() + slot);
            if (dot < static_cast<int>(samples.size()))
                samples[dot].push_back(blob->size);
            ui->setLaserAlignAccuracy(100, dot);
            ui->showHandOnDot(-1, false);
            if (!activeDots.empty())
                continue;
            std::vector<double> values;
            for (const auto& sizes : samples) {
                // The first frames of a press are not yet the settled finger.
                double sum = 0;
                for (size_t i = 5; i < sizes.size(); ++i)
                    sum += sizes[i];
                values.push_back(sizes.size() > 6 ? sum / static_cast<double>(sizes.size() - 5) : 0.0);
            }
            if (Calibration* calibration = emitter->getCalibration())
                calibration->extras = values;
            checking = true;
            hold.unlock();
            WorkerThread::doWork(this, "1finishAutoCorrection()", -1);
            return;
        }

        Calibration* calibration = emitter->getCalibration();
        if (!calibration)
            continue;
        std::vector<double> xs = calibration->getFingerXShift();
        std::vector<double> ys = calibration->getFingerYShift();
        if (dot < static_cast<int>(xs.size()))
            xs[dot] += dots[dot].x < blob->fx ? -0.1 : 0.1;
        if (dot < static_cast<int>(ys.size()))
            ys[dot] += dots[dot].y < blob->fy ? -0.1 : 0.1;
        calibration->setFingerXShift(xs);
        calibration->setFingerYShift(ys);
        emitter->updateShiftCorrection();
        ui->setLaserAlignAccuracy(accuracy, dot);
        ui->setLaserAlignDebugPoint(c, dot < static_cast<int>(xs.size()) ? xs[dot] : 0.0,
                                    dot < static_cast<int>(ys.size()) ? ys[dot] : 0.0, blob->xShift, blob->yShift,
                                    dot);
    }
}

void LaserAlignment::finishAutoCorrection()
{
    // Time for the finger to leave the surface before the check listens.
    WorkerThread::msleep(1000);
    step = 3;
    const bool disturbed = isDisturbance();
    if (disturbed)
        resetAccuracies();
    checking = false;
    if (!disturbed) {
        dispose();
        return;
    }
    // Esc during the check: its verdict is in, so the run may end now.
    if (disposeRequested)
        dispose();
}
