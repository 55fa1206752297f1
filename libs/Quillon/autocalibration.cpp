#include "autocalibration.h"

#include "calibration.h"
#include "calibrationhelper.h"
#include "classifier.h"
#include "iautocalibrationui.h"
#include "iblobemitter.h"
#include "idisturbancechecker.h"
#include "iimagesource.h"
#include "utility.h"
#include "workerthread.h"

#include <QDebug>
#include <QDir>
#include <QFile>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <locale.h>

namespace {

// Exposures are whole register values; the file may hold anything.
int toInt(double value)
{
    if (std::isnan(value))
        return 0;
    if (value <= double(std::numeric_limits<int>::min()))
        return std::numeric_limits<int>::min();
    if (value >= double(std::numeric_limits<int>::max()))
        return std::numeric_limits<int>::max();
    return static_cast<int>(value);
}

// The file is written with a decimal point whatever the desktop's language.
double parseNumber(const std::string& text)
{
    static const locale_t c = newlocale(LC_NUMERIC_MASK, "C", nullptr);
    return strtod_l(text.c_str(), nullptr, c);
}

std::string trimmed(const std::string& s)
{
    const char* blanks = " \t\r\n\f\v";
    const size_t begin = s.find_first_not_of(blanks);
    if (begin == std::string::npos)
        return {};
    return s.substr(begin, s.find_last_not_of(blanks) - begin + 1);
}

// Exposure arithmetic in a wider type: a step from the file may be as large as an int holds.
using Exposure = long long;

} // namespace

AutoCalibration::AutoCalibration(IDisturbanceChecker* checker, IBlobEmitter* emitter_)
    : emitter(emitter_), disturbanceChecker(checker), classifier(new Classifier())
{
}

AutoCalibration::~AutoCalibration()
{
    while (working)
        WorkerThread::msleep(1);
    if (exposureLog)
        std::fclose(exposureLog);
    delete result;
    delete classifier;
}

void AutoCalibration::start(IImageSource* source_, IAutoCalibrationUi* ui_, char* configPath_, std::string debugDir_,
                            int screenWidth_, int screenHeight_, int sensorWidth_, int sensorHeight_, bool debug_,
                            bool hideWhenDone_)
{
    configPath = configPath_ ? configPath_ : "";
    status = 0;
    debugDir = std::move(debugDir_);
    screenWidth = screenWidth_;
    screenHeight = screenHeight_;
    sensorWidth = sensorWidth_;
    sensorHeight = sensorHeight_;
    source = source_;
    ui = ui_;
    debug = debug_;
    hideWhenDone = hideWhenDone_;
    exposureFactorUp = 0.33;
    exposureFactorDown = 0.6;
    exposureFactorFixed = 0;
    lowContrast = false;

    if (debug) {
        QDir dir(QString::fromStdString(debugDir));
        if (dir.exists())
            for (const QString& name : dir.entryList({"*.*"}, QDir::Files))
                dir.remove(name);
    }
    qDebug() << "Started AC, debug = " << (debug ? "true" : "false");

    debugImage = cv::Mat::zeros(std::max(sensorHeight, 0), std::max(sensorWidth, 0), CV_8UC3);
    projectedImage = cv::Mat::zeros(std::max(screenHeight, 0), std::max(screenWidth, 0), CV_8UC1);

    refineSteps = 5;
    unusedLine10 = 160000.0;
    exposureStep = 40000.0;
    loadConfig();

    ui->setup(patternCols, patternRows, screenWidth, screenHeight, sensorWidth, sensorHeight);
    delete result;
    result = nullptr;
    startExposure = exposure;
    ui->setSuccess(false);
    ui->show(true, false);
    working = true;
    WorkerThread::doWork(this, "1startProcessing()", -1);
}

void AutoCalibration::loadConfig()
{
    qDebug() << "Reading config: " << configPath.c_str();
    std::ifstream in(configPath);
    if (!in) {
        qDebug() << "Could not read AC config!";
        return;
    }
    std::string line;
    for (int n = 0; n < ConfigLines && std::getline(in, line); ++n) {
        // The label before the first colon is for people; a line without one is all value.
        const size_t colon = line.find(':');
        const double v = parseNumber(trimmed(colon == std::string::npos ? line : line.substr(colon + 1)));
        switch (n) {
        case 0: patternCols = toInt(v); break;
        case 1: patternRows = toInt(v); break;
        case 2: dotRadius = v; break;
        case 3: marginX = v; break;
        case 4: marginY = v; break;
        case 5: unusedLine5 = v; break;
        case 6: maxWeightRatio = v; break;
        case 7: maxDistanceRatio = v; break;
        case 8: maxAngle = v; break;
        case 9: exposureFloor = v; break;
        case 10: unusedLine10 = v; break;
        case 11: exposure = v; break;
        case 12: exposureStep = v; break;
        case 13: unusedLine13 = v; break;
        case 14: shiftX = v; break;
        case 15: shiftY = v; break;
        case 16: ratioLeft = v; break;
        case 17: ratioRight = v; break;
        case 18: ratioTop = v; break;
        case 19: ratioBottom = v; break;
        case 20: growth = v; break;
        case 21: maxDelayMs = interframeDelayMs = toInt(v); break;
        case 22: refineSteps = toInt(v); break;
        case 23: exposureFactorUp = v; break;
        case 24: exposureFactorDown = v; break;
        case 25: exposureFactorFixed = v; break;
        case 26: tableTop = v == 1.0; break;
        }
    }
}

bool AutoCalibration::cancelled()
{
    return ui && ui->isCancelled();
}

void AutoCalibration::sleepMs(int ms)
{
    if (ms > 0)
        WorkerThread::msleep(static_cast<unsigned long>(ms));
}

void AutoCalibration::startProcessing()
{
    for (int i = 0; i < 200; ++i) {
        if (ui->isWindowShown() || ui->isCancelled())
            break;
        WorkerThread::msleep(20);
    }
    if (ui->isCancelled()) {
        status = -3;
    } else {
        WorkerThread::msleep(300);
        result = ProcessOnce();
    }

    if (!result) {
        status = status == -3 ? -3 : 0;
    } else if (status == -3) {
        delete result;
        result = nullptr;
    } else {
        ui->showLoading(true);
        Calibration* made = result;
        // The emitter keeps it from here on.
        result = nullptr;
        emitter->setCalibration(made);
        emitter->addBlobListener(disturbanceChecker);
        const bool disturbed = disturbanceChecker->checkIsDisturbanceOnScreen();
        emitter->removeBlobListener(disturbanceChecker);
        status = disturbed ? -2 : 1;
    }
    ui->setSuccess(status == 1);
    if (hideWhenDone)
        ui->show(false, true);
    emit finished(status);
    working = false;
}

void AutoCalibration::setExposure(int value)
{
    qDebug() << "Setting the exposure to " << value;
    if (source)
        source->setExposure(value);
}

void AutoCalibration::saveDebugImage(const cv::Mat& image, const std::string& name, int index)
{
    if (debug && !image.empty())
        utility::SaveDebugImage(image, debugDir, name, index);
}

void AutoCalibration::showImage(const cv::Mat& image, int id)
{
    qDebug() << "Show Image: " << id;
    if (image.empty())
        return;
    ui->showImage(image.data, image.cols, image.rows, id);
}

cv::Mat AutoCalibration::getMaxContrastImage()
{
    cv::Mat sum;
    if (!source)
        return sum;
    for (int i = 0; i < framesPerImage; ++i) {
        const cv::Mat frame(sensorHeight, sensorWidth, CV_8UC1, source->getImage());
        if (i == 0) {
            frame.copyTo(sum);
            continue;
        }
        // A running mean in which frame 1 replaces frame 0: the first frame may still show
        // what was there before.
        cv::addWeighted(frame, 1.0 / i, sum, 1.0 - 1.0 / i, 0.0, sum);
        WorkerThread::msleep(15);
    }
    return sum;
}

cv::Mat AutoCalibration::getImage(const cv::Mat& mask, bool whiteOutside)
{
    if (!source)
        return {};
    const cv::Mat mean = getMaxContrastImage();
    cv::Mat out(sensorHeight, sensorWidth, CV_8UC1, cv::Scalar(whiteOutside ? 255 : 0));
    if (mean.empty())
        return out;
    if (mask.empty())
        mean.copyTo(out);
    else
        mean.copyTo(out, mask);
    return out;
}

cv::Mat AutoCalibration::getSingleFrame(const cv::Mat& mask)
{
    if (!source)
        return {};
    const cv::Mat frame(sensorHeight, sensorWidth, CV_8UC1, source->getImage());
    cv::Mat out(sensorHeight, sensorWidth, CV_8UC1, cv::Scalar(0));
    if (mask.empty())
        frame.copyTo(out);
    else
        frame.copyTo(out, mask);
    return out;
}

cv::Mat AutoCalibration::getMaxContrastImage_exposure(const cv::Mat& mask)
{
    cv::Mat best;
    if (!source)
        return best;
    double bestD = 0;
    for (int i = 0; i < framesPerImage; ++i) {
        const cv::Mat frame(sensorHeight, sensorWidth, CV_8UC1, source->getImage());
        const double m = mask.empty() ? utility::calcAvg(frame, -1) : utility::calcAvg(frame, mask);
        const double d = utility::calcVariance(frame, m, -1, false);
        if (d > bestD) {
            bestD = d;
            frame.copyTo(best);
        }
    }
    return best;
}

int AutoCalibration::findHistogramQuality(const cv::Mat& mask)
{
    const cv::Mat frame = getMaxContrastImage_exposure(mask);
    if (frame.empty())
        return -1;
    const double m = mask.empty() ? utility::calcAvg(frame, -1) : utility::calcAvg(frame, mask);
    return toInt(utility::calcVariance(frame, m, -1, false));
}

int AutoCalibration::findBestExposure(int start, const cv::Mat& region)
{
    constexpr Exposure top = 1000;
    const Exposure S = toInt(exposureStep);
    const double F = exposureFloor;
    const Exposure floorValue = toInt(F);
    auto q = [&](Exposure e) {
        setExposure(toInt(double(e)));
        return findHistogramQuality(region);
    };

    bool up = true;
    Exposure base = 0, best = 0, far = 0, last = 0;
    int bestQ = 0;

    const int q0 = q(start);
    const int q1 = q(start + S);
    if (q0 < q1) {
        qDebug() << "best exposure is more than file exposure";
        Exposure prev = start + S;
        int prevQ = q1;
        Exposure e = prev;
        int qe = q1;
        bool settled = false;
        for (int k = 2; k <= 7 && !settled; ++k) {
            const Exposure v = k * S + start;
            if (v > top) {
                best = base = last = prev;
                far = top;
                bestQ = prevQ;
                settled = true;
                break;
            }
            e = v;
            qe = q(e);
            if (!(prevQ < qe)) {
                best = prev;
                far = last = e;
                base = e - S;
                bestQ = prevQ;
                settled = true;
                break;
            }
            prev = e;
            prevQ = qe;
        }
        if (!settled) {
            best = base = last = e;
            far = start;
            bestQ = qe;
        }
        up = true;
    } else {
        const Exposure e2 = start - S;
        const int q2 = q(e2);
        if (q0 < q2) {
            qDebug() << "best exposure is less than file exposure";
            best = far = last = e2;
            base = floorValue;
            bestQ = q2;
            up = false;
        } else if (q1 < q2) {
            qDebug() << "file xposure is near best exposure go slightly less";
            base = e2;
            best = far = start;
            last = e2;
            bestQ = q0;
            up = false;
        } else {
            qDebug() << "file xposure is near best exposure go slightly more";
            base = best = start;
            far = start + S;
            last = e2;
            bestQ = q0;
            up = true;
        }
    }

    // Fine stage: from the coarse bracket in smaller steps while the quality holds.
    const bool atFloor = double(base) == F;
    Exposure small;
    if (atFloor) {
        if (refineSteps < 2)
            return toInt(double(last + best) / 2.0);
        small = toInt(exposureStep / refineSteps);
    } else {
        refineSteps = 5;
        small = toInt(exposureStep / 5);
    }
    Exposure a = base + small;
    Exposure b = far - small;
    for (int i = 1;; ++i) {
        if (up) {
            if (a > top) {
                best = last;
                break;
            }
            const int qa = q(a);
            if (bestQ > qa) {
                last = a;
                break;
            }
            bestQ = qa;
            last = a;
        } else {
            last = b;
            if (!(F < double(last))) {
                best = last = floorValue;
                break;
            }
            const int qb = q(b);
            if (qb < bestQ - 2)
                break;
            bestQ = qb;
        }
        a += small;
        b -= small;
        if (!(refineSteps - 1 > i)) {
            best = last;
            break;
        }
        best = last;
    }
    return atFloor ? toInt(double(last + best) / 2.0) : toInt(double(best));
}

double AutoCalibration::getBackground()
{
    qDebug() << "Getting the background. delay: ";
    printf("maxDelayMilliseconds: %d\n", maxDelayMs);
    projectedImage.setTo(0);
    showImage(projectedImage, 2);
    sleepMs(maxDelayMs);
    qDebug() << "wait over : ";
    if (cancelled())
        return -3.0;
    blackImage = getImage(cv::Mat(), false);
    if (cancelled())
        return -3.0;
    saveDebugImage(blackImage, "black", -1);

    // A dark room gets a wide dark centre (k 6), a bright one a narrow one (k 2).
    const double avg = blackImage.empty() ? 0.0 : utility::calcAvg(blackImage, -1);
    const double k = avg / 120.0 <= 1.0 ? (1.0 - avg / 120.0) * 4.0 + 2.0 : 2.0;
    const int r = toInt(dotRadius);
    const int w = screenWidth, h = screenHeight;
    cv::rectangle(projectedImage, cv::Point(-2 * r, 0), cv::Point(w + 4 * r, h), cv::Scalar(255), cv::FILLED);
    cv::rectangle(projectedImage, cv::Point(toInt(w / k), toInt(h / k)),
                  cv::Point(toInt((k - 1) / k * w), toInt((k - 1) / k * h)), cv::Scalar(0), cv::FILLED);
    cv::rectangle(projectedImage, cv::Point(-2 * r, h - h / 3), cv::Point(w + 2 * r, h), cv::Scalar(255),
                  cv::FILLED);
    showImage(projectedImage, 3);
    sleepMs(maxDelayMs);
    if (cancelled())
        return -3.0;

    const cv::Mat white = getImage(cv::Mat(), false);
    if (cancelled())
        return 0;
    double area = 0;
    maskImage = classifier->CreateMaskFromProjectionBorder(white, blackImage, &area, &debugImage, &lowContrast);
    // Which thresholds the rows are looked for with: a dim picture in a bright room has its own.
    qDebug() << "Picture contrast:" << (lowContrast ? "low" : "normal");
    saveDebugImage(debugImage, "border_debug", -1);
    return area;
}

int AutoCalibration::getDelayInProjection()
{
    // From the bright border picture to black: the first picture after the change that is
    // as dark as the settled ones tells how long the projector takes.
    const cv::Mat first = getImage(maskImage, false);
    if (first.empty())
        return 100;
    cv::Mat black = cv::Mat::zeros(screenHeight, screenWidth, CV_8UC1);
    showImage(black, 2);

    const int n = maxDelayMs / 100;
    const int K = n < 3 ? 2 : n - 1;
    const int L = n < 3 ? 1 : n - 2;
    // Single frames, not means: a mean of framesPerImage frames takes some 400 ms, so the
    // picture counted as "after 200 ms" would be more than a second late, and a projector of
    // 250 ms would be measured at 200 and every row then filmed before its picture arrived.
    std::vector<cv::Mat> pictures(static_cast<size_t>(K) + 1);
    for (int i = 0; i <= K; ++i) {
        WorkerThread::msleep(100);
        if (!cancelled())
            pictures[static_cast<size_t>(i)] = getSingleFrame(maskImage);
    }

    int delay = 100;
    const cv::Mat& settled = pictures[static_cast<size_t>(K)];
    if (!settled.empty()) {
        auto brightness = [&](const cv::Mat& picture) {
            if (picture.empty())
                return 0.0;
            cv::Mat difference;
            cv::subtract(picture, settled, difference);
            return utility::totalBrightness(difference);
        };
        const double b0 = brightness(first);
        std::vector<double> b(static_cast<size_t>(K));
        for (int i = 0; i < K; ++i)
            b[static_cast<size_t>(i)] = brightness(pictures[static_cast<size_t>(i)]);
        const double ref = b[static_cast<size_t>(L)];
        for (int i = 0; i < K; ++i) {
            const double bi = b[static_cast<size_t>(i)];
            if (bi < ref * 1.4 || bi < (b0 - ref) * 0.01 + ref) {
                delay = (i + 1) * 100;
                break;
            }
        }
    }
    interframeDelayMs = delay;
    qDebug() << "interframeDelayMilliSeconds = " << interframeDelayMs;
    maxDelayMs = delay;
    return delay;
}

void AutoCalibration::showCheckBoardPattern()
{
    projectedImage.setTo(0);
    const int cw = screenWidth / 6, ch = screenHeight / 6;
    for (int r = 0; r < 6; ++r)
        for (int c = r % 2; c < 6; c += 2)
            cv::rectangle(projectedImage, cv::Rect(c * cw, r * ch, cw, ch), cv::Scalar(255), cv::FILLED);
    showImage(projectedImage, 0);
    sleepMs(interframeDelayMs);
}

void AutoCalibration::showBorderImage()
{
    projectedImage.setTo(255);
    cv::rectangle(projectedImage, cv::Point(0, screenHeight / 6), cv::Point(screenWidth, toInt(0.8 * screenHeight)),
                  cv::Scalar(0), cv::FILLED);
    showImage(projectedImage, 4);
    sleepMs(interframeDelayMs);
}

void AutoCalibration::drawTopRows(cv::Mat& image, bool inverted)
{
    const int r = toInt(dotRadius);
    const int w = image.cols, h = image.rows;
    cv::rectangle(image, cv::Point(2 * r, 0), cv::Point(w - 2 * r, h), cv::Scalar(inverted ? 255 : 0), cv::FILLED);
    const int bottom = patternRows != 0 ? toInt(2.0 / patternRows * h + r) : h;
    cv::rectangle(image, cv::Point(2 * r, 0), cv::Point(w - 2 * r, bottom), cv::Scalar(inverted ? 0 : 255),
                  cv::FILLED);
}

void AutoCalibration::drawBottomRows(cv::Mat& image, bool inverted)
{
    const int r = toInt(dotRadius);
    const int w = image.cols, h = image.rows;
    cv::rectangle(image, cv::Point(2 * r, 0), cv::Point(w - 2 * r, h), cv::Scalar(inverted ? 255 : 0), cv::FILLED);
    cv::rectangle(image, cv::Point(2 * r, toInt(0.7 * h + r)), cv::Point(w - 2 * r, h), cv::Scalar(inverted ? 0 : 255),
                  cv::FILLED);
}

void AutoCalibration::drawPattern(cv::Mat& image, const std::vector<EVector>& points, int index, int color)
{
    // Far rows look smaller to the camera: their dots grow. The count of points in the row
    // stands in for the count of rows when the growth is reversed.
    const int i = invertDraw ? static_cast<int>(points.size()) - index : index;
    const int radius = toInt(i * growth * dotRadius + dotRadius);
    for (const EVector& p : points)
        cv::circle(image, cv::Point(toInt(p.x), toInt(p.y)), std::max(radius, 0), cv::Scalar(color), cv::FILLED,
                   cv::LINE_8);
}

void AutoCalibration::drawPattern_tableTopAc(cv::Mat& image, const std::vector<EVector>& points, int radius, int color)
{
    for (const EVector& p : points)
        cv::circle(image, cv::Point(toInt(p.x), toInt(p.y)), std::max(radius, 0), cv::Scalar(color), cv::FILLED,
                   cv::LINE_8);
}

void AutoCalibration::showPattern(const Rows& rows, int index, bool inverted)
{
    projectedImage.setTo(inverted ? 255 : 0);
    if (index >= 0 && index < static_cast<int>(rows.size()))
        drawPattern(projectedImage, rows[static_cast<size_t>(index)], index, inverted ? 0 : 255);
    showImage(projectedImage, (inverted ? 200 : 100) + index);
    sleepMs(interframeDelayMs);
}

void AutoCalibration::showPattern_tableTopAc(const Rows& rows, int index, int radius, bool inverted)
{
    projectedImage.setTo(inverted ? 255 : 0);
    if (index >= 0 && index < static_cast<int>(rows.size()))
        drawPattern_tableTopAc(projectedImage, rows[static_cast<size_t>(index)], radius, inverted ? 0 : 255);
    showImage(projectedImage, (inverted ? 200 : 100) + index);
    sleepMs(interframeDelayMs);
}

std::vector<EVector> AutoCalibration::findRow(const cv::Mat& reference, bool inverted, int index,
                                              const char* debugName)
{
    const cv::Mat shot = getImage(maskImage, inverted);
    bool flag = false;
    std::vector<EVector> hits =
        classifier->FindPattern(shot, reference, &debugImage, patternCols, index, &flag, inverted, lowContrast);
    saveDebugImage(debugImage, debugName, index);
    return hits;
}

Calibration* AutoCalibration::ProcessOnce()
{
    classifier->maxWeightRatio = maxWeightRatio;
    classifier->maxDistanceRatio = maxDistanceRatio;
    classifier->maxAngle = maxAngle;
    classifier->setParams(sensorWidth, sensorHeight);

    showCheckBoardPattern();
    exposure = startExposure;

    // The exposure is judged on the middle of the picture, where the screen surely is.
    cv::Mat region = cv::Mat::zeros(sensorHeight, sensorWidth, CV_8UC1);
    cv::rectangle(region, cv::Point(toInt(0.25 * sensorWidth), toInt(0.25 * sensorHeight)),
                  cv::Point(toInt(0.75 * sensorWidth), toInt(0.9 * sensorHeight)), cv::Scalar(255), cv::FILLED);
    if (debug) {
        std::error_code ec;
        std::filesystem::create_directories(debugDir, ec);
        exposureLog = std::fopen((debugDir + "/rightExposerLog.txt").c_str(), "a");
    }
    const int best = findBestExposure(toInt(exposure), region);
    if (exposureLog)
        std::fprintf(exposureLog, "Final Exposure: %d\n", best);

    // The best picture of the checkerboard is too bright for small dots: a share of it.
    if (exposureFactorFixed > 0) {
        exposure = best * exposureFactorFixed;
    } else if (double(best) == exposureFloor) {
        exposure = best;
    } else if (best < exposure) {
        exposure = best * exposureFactorDown;
        if (exposureLog)
            std::fprintf(exposureLog, "exposure decrease Factor: %g\n", exposureFactorDown);
    } else {
        exposure = best * exposureFactorUp;
        if (exposureLog)
            std::fprintf(exposureLog, "exposure decrease Factor: %g\n", exposureFactorUp);
    }
    // A band of exposures in which the imager misbehaves.
    if (exposure >= 500 && exposure <= 700)
        exposure = 450;
    setExposure(toInt(exposure));
    if (exposureLog) {
        std::fprintf(exposureLog, "Finally set Exposure: %d\n", toInt(exposure));
        std::fclose(exposureLog);
        exposureLog = nullptr;
    }

    const double mx = screenWidth * marginX;
    const double my = screenHeight * marginY;
    dotRadius = screenWidth * 0.0009765625 * dotRadius;
    const std::vector<EVector> points = CalibrationHelper::calcCalibrationPointsRelativeMargin(
        patternCols, patternRows, screenWidth, screenHeight, mx, my, growth);
    if (screenWidth > 0)
        marginX = mx / screenWidth;
    if (screenHeight > 0)
        marginY = my / screenHeight;
    const Rows rows = points.empty() ? Rows() : CalibrationHelper::extractRows(points, patternCols, patternRows, true);

    if (cancelled() || getBackground() == -3.0) {
        status = -3;
        return nullptr;
    }
    getDelayInProjection();
    if (tableTop)
        invertDraw = checkTableTopAC_robust();

    std::vector<EVector> found;
    for (int i = 0; i < static_cast<int>(rows.size()); ++i) {
        if (cancelled()) {
            status = -3;
            return nullptr;
        }
        projectedImage.setTo(0);
        bool seen = false;
        for (int attempt = 0; attempt < 3 && !seen; ++attempt) {
            if (cancelled()) {
                status = -3;
                return nullptr;
            }
            if (i == 0) {
                showImage(projectedImage, 5);
                sleepMs(interframeDelayMs);
                blackImage = getMaxContrastImage();
                saveDebugImage(blackImage, "newblack", 0);
            }
            showPattern(rows, i, false);
            const std::vector<EVector> hits = findRow(blackImage, false, i, "findpattern");
            if (static_cast<int>(hits.size()) == patternCols) {
                found.insert(found.end(), hits.begin(), hits.end());
                seen = true;
            } else {
                // The light may have changed: new references before the next try.
                getBackground();
            }
        }
        if (seen)
            continue;

        if (cancelled()) {
            status = -3;
            return nullptr;
        }
        // Black dots on a bright reference: what the last background step left on the screen.
        showImage(projectedImage, i < darkRows ? 5 : 6);
        sleepMs(interframeDelayMs);
        whiteImage = getMaxContrastImage();
        showPattern(rows, i, true);
        const std::vector<EVector> hits = findRow(whiteImage, true, i, "invertedpattern");
        if (static_cast<int>(hits.size()) != patternCols) {
            if (cancelled()) {
                status = -3;
                return nullptr;
            }
            getBackground();
            qDebug() << "This round failed.";
            return nullptr;
        }
        found.insert(found.end(), hits.begin(), hits.end());
    }

    if (patternCols < 2 || patternRows < 2 || found.size() != static_cast<size_t>(patternCols) * patternRows)
        return nullptr;

    const bool inverted = CalibrationHelper::isInvertedCMOS(found);
    // The points come row by row already; each row is put in x order.
    Rows rows2 = CalibrationHelper::extractRows(found, patternCols, patternRows, false);
    if (inverted) {
        ratioBottom = -ratioBottom;
        ratioTop = -ratioTop;
        const double left = ratioLeft;
        ratioLeft = -ratioRight;
        ratioRight = -left;
    }
    CalibrationHelper::correctOneSideYPositionWithRatio(&rows2, true, ratioTop);
    CalibrationHelper::correctOneSideYPositionWithRatio(&rows2, false, ratioBottom);
    CalibrationHelper::Cols cols = CalibrationHelper::extractCols(rows2, patternCols, patternRows);
    CalibrationHelper::correctOneSideXPositionWithRatio(&cols, true, ratioLeft);
    CalibrationHelper::correctOneSideXPositionWithRatio(&cols, false, ratioRight);
    CalibrationHelper::shiftPoints(&cols, shiftX, shiftY);

    CalibrationHelper::Cols zz = CalibrationHelper::extractColsZickZack(std::move(cols), patternCols, patternRows);
    if (inverted) {
        // An upside-down camera: into the order of the screen's grid.
        zz = CalibrationHelper::invertColsHorizontally(zz);
        zz = CalibrationHelper::invertColsVertically(zz);
    }
    std::vector<EVector> flat;
    for (const auto& column : zz)
        for (const EVector& p : column)
            flat.push_back(p);

    qDebug() << "creating new calibration marginx = " << marginX << " marginy = " << marginY;
    return new Calibration(patternCols, patternRows, flat, {}, marginX, marginY, growth, true, false);
}

bool AutoCalibration::checkTableTopAC_robust()
{
    if (cancelled()) {
        status = -3;
        return false;
    }
    const int R = patternRows;
    const int r0 = R != 0 ? toInt(screenWidth * 0.0009765625 * (220 / R)) : 0;
    const int radius = toInt(r0 + (R - 1) * 0.05 * r0);
    const double mx0 = screenWidth * marginX;
    const double my = screenHeight * marginY;
    double top = 0, bottom = 0;

    for (const int i : {0, R - 1}) {
        // Each pass lays the grid out as a trapezoid whose wide side is the row under test.
        const double g = i == 0 ? -0.05 : 0.05;
        const double mx = i == 0 ? mx0 * ((R - 1) * 0.05 + 1.0) : mx0;
        const std::vector<EVector> points =
            CalibrationHelper::calcCalibrationPointsRelativeMargin(patternCols, R, screenWidth, screenHeight, mx, my, g);
        const Rows rows = points.empty() ? Rows() : CalibrationHelper::extractRows(points, patternCols, R, true);

        projectedImage.setTo(0);
        std::vector<EVector> hits;
        bool seen = false;
        for (int attempt = 0; attempt < 3 && !seen; ++attempt) {
            if (cancelled()) {
                status = -3;
                return false;
            }
            if (i < darkRows) {
                showImage(projectedImage, 5);
                sleepMs(interframeDelayMs);
                blackImage = getMaxContrastImage();
            } else if (i > darkRows) {
                showImage(projectedImage, 6);
                sleepMs(interframeDelayMs + 100);
                blackImage = getMaxContrastImage();
            }
            showPattern_tableTopAc(rows, i, radius, false);
            hits = findRow(blackImage, false, i, "tableTop_findpattern");
            if (static_cast<int>(hits.size()) >= patternCols / 2)
                seen = true;
            else
                getBackground();
        }
        if (!seen) {
            if (cancelled()) {
                status = -3;
                return false;
            }
            showImage(projectedImage, i < darkRows ? 5 : 6);
            sleepMs(interframeDelayMs);
            whiteImage = getMaxContrastImage();
            showPattern_tableTopAc(rows, i, radius, true);
            hits = findRow(whiteImage, true, i, "tableTop_invertedpattern");
            if (static_cast<int>(hits.size()) < patternCols / 2) {
                getBackground();
                qDebug() << "This round failed.";
                return false;
            }
        }
        double sum = 0;
        for (const EVector& p : hits)
            sum += p.weight;
        if (i == 0) {
            qDebug() << "topAvgArea: " << sum;
            top = sum;
        } else {
            qDebug() << "bottomAvgArea: " << sum;
            bottom = sum;
        }
    }
    return top < bottom;
}
