#include "activepen.h"

#include "allblobs.h"
#include "blobcorrectionbyformula.h"
#include "boxtrackingengine.h"
#include "calibration.h"
#include "fisheyeundistortion.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "interpolation.h"
#include "normalundistortion.h"
#include "sensor.h"
#include "trackingengine.h"
#include "transformgrid.h"

#include <QDebug>

#include <algorithm>
#include <cmath>
#include <cstdio>

ActivePen::~ActivePen()
{
    // The tracked lists hold the blobs that matching keeps alive between frames.
    for (BlobList* list : {blobs, outsideBlobs})
        if (list)
            for (Blob* b : list->blobs)
                delete b;
    if (fingerEngine)
        delete fingerEngine->blobFilter;
    delete fingerEngine;
    delete stylusEngine;
    delete grid;
    delete invertedGrid;
    delete rawInvertedGrid;
    delete blobs;
    delete outsideBlobs;
    delete interpolationMain;
    delete bezier;
    delete inertia;
    delete formulaCorrection;
    delete correction;
}

void ActivePen::start(Sensor* sensor_, ActivePenContext context_)
{
    sensor = sensor_;
    context = context_;
    stylusEngine = new TrackingEngine(context.width, context.height, context.stylusThreshold, 1, true);
    fingerEngine = new BoxTrackingEngine(context.width, context.height, context.boxFactor, context.boxParameter);
    grid = new TransformGrid();
    invertedGrid = new TransformGrid();
    rawInvertedGrid = new TransformGrid();
    blobs = new BlobList();
    outsideBlobs = new BlobList();
    maxBlobs = 1000;
    interpolationMain = new Interpolation(context.bezierFactor);
    bezier = new Interpolation(0.6);
    inertia = new Interpolation(GS::instance()->edgeInertia);
    if (GS::instance()->tableTopAc)
        correction = new FisheyeUndistortion();
    else
        correction = new NormalUndistortion();
    formulaCorrection = new BlobCorrectionByFormula();
    for (ITrackingEngine* engine : {fingerEngine, stylusEngine}) {
        engine->correction = correction;
        engine->formulaCorrection = formulaCorrection;
    }
    inputMode = Finger;
    extended = false;
    dualEngine = false;
}

bool ActivePen::initNormalUndistortion(const char* intrinsicPath, const char* distortionPath, double scaleX,
                                       double scaleY)
{
    return correction->initByFiles(intrinsicPath, distortionPath, scaleX, scaleY);
}

bool ActivePen::initFisheyeUndistortion(int cx, int cy, int fx, int fy)
{
    return correction->initByIntrinsic(cx, cy, fx, fy);
}

void ActivePen::configExtraCorrection(double x, double y, double factor)
{
    formulaCorrection->config(EVector(x, y), factor, 0, 0, 0, 0, 0);
}

EVector ActivePen::transform(EVector p, bool inverted)
{
    std::lock_guard<std::mutex> hold(frameLock);
    return inverted ? invertedGrid->Filter(p) : grid->Filter(p);
}

void ActivePen::setInputMode(int mode)
{
    inputMode = mode;
    extended = mode != Finger;
    dualEngine = mode == Stylus ? lumerailCalibrated.load() : false;
}

void ActivePen::resetBackgroundTable(bool full)
{
    if (inputMode == StylusCalibration)
        stylusEngine->resetBackgroundTable(full);
    else
        fingerEngine->resetBackgroundTable(full);
    if (dualEngine)
        stylusEngine->resetBackgroundTable(full);
}

std::vector<Blob*> ActivePen::convert(unsigned char* image, int keepFrames, bool debug)
{
    std::lock_guard<std::mutex> hold(frameLock);
    AllBlobs main = inputMode == StylusCalibration ? stylusEngine->processImage(image, false, debug)
                                                   : fingerEngine->processImage(image, extended, debug);
    if (dualEngine && !debug) {
        AllBlobs beside = stylusEngine->processImage(image, true, false);
        // The inside list of the second engine has no use here; its blobs are still ours.
        for (Blob* b : beside.blobs.blobs)
            delete b;
        outsideBlobs->mergeWith(std::move(beside.outsideBlobs), keepFrames, correction);
    }
    // The main engine's outside list is not tracked.
    for (Blob* b : main.outsideBlobs.blobs)
        delete b;
    blobs->mergeWith(std::move(main.blobs), keepFrames, correction);

    bezier->BezierCurveFilter(blobs, false);
    bezier->BezierCurveFilter(outsideBlobs, false);

    if (context.inertiaRadius < 1.0 && grid->IsReady()) {
        const double edgeRadius = GS::instance()->edgeRadius;
        for (Blob* b : blobs->blobs) {
            const EVector screen = grid->Filter(correction->undistort(b->center()));
            if (screen.y / grid->screenHeight > context.inertiaRadius || b->radial > edgeRadius)
                inertia->InertiaCurveFilter(b, -1.0);
            else
                inertia->ResetList(b);
        }
    }

    std::vector<Blob*> result = blobs->ToArray(grid, correction);
    std::vector<Blob*> second = outsideBlobs->ToArray(grid, correction);
    for (Blob* b : result)
        b->outside = false;
    for (Blob* b : second)
        b->outside = true;
    result.insert(result.end(), second.begin(), second.end());
    return result;
}

void ActivePen::setWindow()
{
    GS* gs = GS::instance();
    gs->windowTopLeft = EVector(context.windowX, context.windowY);
    gs->windowBottomRight = EVector(context.windowWidth, context.windowHeight);
    if (!sensor)
        return;
    if (!gs->autoWindow)
        sensor->setWindow(gs->windowX, gs->windowY, gs->windowWidth, gs->windowHeight);
    else
        sensor->setWindow(0, 0, context.width, context.height);
}

void ActivePen::setAutoWindow(const std::vector<EVector>& points)
{
    if (!context.autoWindow || points.size() < 4) {
        setWindow();
        return;
    }
    double minX = 0, minY = 0, maxX = 0, maxY = 0;
    {
        std::lock_guard<std::mutex> hold(frameLock);
        for (size_t i = 0; i < points.size(); ++i) {
            const EVector p = rawInvertedGrid->Filter(points[i]);
            minX = i == 0 ? p.x : std::min(minX, p.x);
            minY = i == 0 ? p.y : std::min(minY, p.y);
            maxX = i == 0 ? p.x : std::max(maxX, p.x);
            maxY = i == 0 ? p.y : std::max(maxY, p.y);
        }
    }
    const int x = std::max(0, int(minX) - 5);
    const int y = std::max(0, int(minY) - 5);
    const int w = std::min(int(std::fabs(maxX - minX)) + 10, context.width);
    const int h = std::min(int(std::fabs(maxY - minY)) + 10, context.height);
    const int binX = sensor ? sensor->binningX : 1;
    const int binY = sensor ? sensor->binningY : 1;
    if (sensor)
        sensor->setWindow(x * binX, y * binY, w * binX, h * binY);
    GS* gs = GS::instance();
    gs->windowTopLeft = EVector(x * binX, y * binY);
    gs->windowBottomRight = EVector(w * binX, h * binY);
}

void ActivePen::setCalibration(Calibration* calibration, Calibration* engineCalibration, int width, int height,
                               int mode)
{
    double sumX = 0;
    for (const EVector& p : calibration->srcPoints)
        sumX += p.x;
    const double meanX = sumX / static_cast<double>(calibration->srcPoints.size());
    const std::vector<EVector> screen = calibration->calcDstPoints(width, height);
    std::vector<EVector> rawSensor;
    std::vector<EVector> sensorPoints;
    for (const EVector& src : calibration->srcPoints) {
        rawSensor.push_back(src);
        EVector p = src;
        if (calibration->formulaZoom)
            p = formulaCorrection->zoom(p);
        p = correction->undistort(p);
        sensorPoints.push_back(p);
    }

    fingerEngine->setCalibration(engineCalibration, mode);
    stylusEngine->setCalibration(engineCalibration, mode);

    std::vector<TransformArea> areas = GridHelper::VerticesToAreas(sensorPoints, screen, sensorPoints, calibration->cols);
    std::vector<TransformArea> invertedAreas = GridHelper::VerticesToAreas(screen, sensorPoints, screen, calibration->cols);
    const std::vector<TransformArea> rawInvertedAreas =
        GridHelper::VerticesToAreas(screen, rawSensor, screen, calibration->cols);
    for (size_t i = 0; i < areas.size(); ++i) {
        areas[i].ExtendHitArea(1.1f, 4);
        if (i < invertedAreas.size())
            invertedAreas[i].ExtendHitArea(1.1f, 4);
    }

    {
        std::lock_guard<std::mutex> hold(frameLock);
        formulaCorrection->center.x = meanX;
        const std::pair<TransformGrid*, const std::vector<TransformArea>*> grids[] = {
            {grid, &areas}, {invertedGrid, &invertedAreas}, {rawInvertedGrid, &rawInvertedAreas}};
        for (const auto& [g, list] : grids) {
            g->screenWidth = width;
            g->screenHeight = height;
            g->ResetCalibration();
            g->SetAreas(*list);
            g->ExtendHitAreas(5.0f, static_cast<unsigned>(calibration->cols));
        }
    }
    printf("Inverted calibration is set. Calibration setting done.\n");
    fflush(stdout);

    if (!calibration->refPoints.empty()) {
        qDebug() << "lumerail is calibrated ";
        lumerailCalibrated = true;
        if (inputMode == Stylus)
            dualEngine = true;
    }
}

void ActivePen::setEngineCalibration(Calibration* calibration, int mode)
{
    if (inputMode != StylusCalibration)
        fingerEngine->setCalibration(calibration, mode);
}

void ActivePen::setBlobFilter(const std::vector<EVector>& polygon)
{
    if (polygon.size() < 3) {
        setWindow();
        std::lock_guard<std::mutex> hold(frameLock);
        delete fingerEngine->blobFilter;
        fingerEngine->blobFilter = nullptr;
        stylusEngine->blobFilter = nullptr;
        return;
    }
    std::lock_guard<std::mutex> hold(frameLock);
    delete fingerEngine->blobFilter;
    auto* filter = new EPolygon(polygon);
    fingerEngine->blobFilter = filter;
    stylusEngine->blobFilter = filter;
}

void ActivePen::setShiftCorrection(const std::vector<EVector>& shifts)
{
    std::lock_guard<std::mutex> hold(frameLock);
    fingerEngine->setFingerTouchShifts(shifts);
}
