#include "offsetcorrection.h"

#include "globalsettings.h"
#include "iblobemitter.h"
#include "ioffsetcorrectionui.h"
#include "workerthread.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int edgeTries = 14;
constexpr int centerTries = 50;

int sign(int v)
{
    return (v > 0) - (v < 0);
}

// The centre lies towards the lower coordinates unless the edge's shift and the centre's miss
// point the same way.
bool centerBelow(int edgeShift, int miss)
{
    return !(edgeShift != 0 && sign(edgeShift) == sign(miss));
}

// A ratio counts only outside this band around 1.
bool isReal(double ratio)
{
    return ratio < 0.999 || ratio > 1.001;
}

double ratioOf(int span, int shift)
{
    const int whole = shift + span;
    return whole == 0 ? 1.0 : double(span) / whole;
}

} // namespace

OffsetCorrection::OffsetCorrection(IOffsetCorrectionUi* ui, IBlobEmitter* emitter) : ui(ui), emitter(emitter)
{
    reset();
}

void OffsetCorrection::reset()
{
    GS* gs = GS::instance();
    gs->offsetLeft = 1.0;
    gs->offsetRight = 1.0;
    gs->offsetTop = 1.0;
    gs->offsetBottom = 1.0;
    gs->offsetC = 0;
    gs->offsetD = 0;
    std::lock_guard hold(lock);
    shiftXLeft = shiftXRight = shiftYTop = shiftYBottom = 0;
    ratioLeft = ratioRight = ratioTop = ratioBottom = 1.0;
    stepSize = 30;
    needCenterX = needCenterY = false;
}

void OffsetCorrection::start()
{
    GS* gs = GS::instance();
    savedPointerMode = gs->pointerMode;
    // The injected events must be touches, whatever the user's choice.
    if (savedPointerMode == 0)
        gs->pointerMode = 1;
    ui->sendClickEventsTo(this, "1onMouseClicked(int, int)");
    ui->show(true);
    WorkerThread::msleep(200);
    OnWindowOpened();
}

void OffsetCorrection::OnWindowOpened()
{
    WorkerThread::doWork(this, "1EmulateTouchEvents()", -1);
    running = true;
}

void OffsetCorrection::SendTouchEvent(EPoint p)
{
    clickSeen = false;
    printf("Sending click X/Y: %d / %d\n", p.x, p.y);
    fflush(stdout);
    emitter->emulateBlob(p.x, p.y);
}

void OffsetCorrection::Wait(int ms)
{
    for (int i = 0; i < 10 && !clickSeen; ++i)
        WorkerThread::msleep(ms);
}

void OffsetCorrection::SendSingleTouch(EPoint p)
{
    SendTouchEvent(p);
    Wait(40);
    int count;
    {
        std::lock_guard hold(lock);
        count = receiveCount;
    }
    // The first click of a point is only seen; the same point again makes it count.
    if (count == 1) {
        SendTouchEvent(p);
        Wait(40);
    }
}

void OffsetCorrection::SendTouchUntilReceived(EPoint p)
{
    {
        std::lock_guard hold(lock);
        receiveCount = 0;
    }
    for (int i = 0; i < 3; ++i) {
        SendSingleTouch(p);
        std::lock_guard hold(lock);
        if (receiveCount == 2)
            return;
    }
}

void OffsetCorrection::probeEdge(Stage stage, const char* label, EPoint& sent, EPoint origin, int dx, int dy)
{
    {
        std::lock_guard hold(lock);
        processStage = stage;
        receiveCount = 0;
    }
    for (int i = 1; i <= edgeTries; ++i) {
        printf(" %s correction i : %d\n", label, i);
        EPoint p;
        {
            std::lock_guard hold(lock);
            sent = {origin.x + dx * stepSize * i, origin.y + dy * stepSize * i};
            p = sent;
        }
        SendSingleTouch(p);
        std::lock_guard hold(lock);
        if (receiveCount == 2)
            return;
    }
}

bool OffsetCorrection::searchCenter(bool alongX)
{
    const GS* gs = GS::instance();
    const int width = gs->screenWidth, height = gs->screenHeight;
    {
        std::lock_guard hold(lock);
        processStage = alongX ? SearchX : SearchY;
        receiveCount = 0;
    }
    for (int counter = centerTries;;) {
        printf(alongX ? "Finding Actual CenterX counter: %d\n" : "Finding Actual CenterY counter: %d\n", counter);
        EPoint p;
        {
            std::lock_guard hold(lock);
            int& along = alongX ? sentCenter.x : sentCenter.y;
            const bool lower = alongX ? centerInLeft : centerInTop;
            along += lower ? -stepSize : stepSize;
            if (along < 1 || along >= (alongX ? width : height))
                return false;
            if (alongX)
                sentCenter.y = height / 2;
            else
                sentCenter.x = width / 2;
            p = sentCenter;
        }
        counter--;
        SendTouchUntilReceived(p);
        std::lock_guard hold(lock);
        if (processStage == (alongX ? FoundX : FoundY) || counter == 0) {
            (alongX ? emulateCenter.x : emulateCenter.y) = alongX ? sentCenter.x : sentCenter.y;
            return true;
        }
    }
}

void OffsetCorrection::EmulateTouchEvents()
{
    const GS* gs = GS::instance();
    const int width = gs->screenWidth, height = gs->screenHeight;
    WorkerThread::msleep(200);

    // Inward from each edge: a touch right at the edge may fall outside the window.
    probeEdge(Left, "Left", sentLeft, {0, height / 2}, 1, 0);
    probeEdge(Right, "Right", sentRight, {width, height / 2}, -1, 0);
    probeEdge(Top, "Top", sentTop, {width / 2, 0}, 0, 1);
    probeEdge(Bottom, "Bottom", sentBottom, {width / 2, height}, 0, -1);

    printf("Center point\n");
    EPoint center;
    {
        std::lock_guard hold(lock);
        processStage = CenterTest;
        receiveCount = 0;
        sentCenter = {width / 2, height / 2};
        center = sentCenter;
    }
    SendTouchUntilReceived(center);
    bool through, needX, needY;
    {
        std::lock_guard hold(lock);
        through = receiveCount == 2;
        needX = needCenterX;
        needY = needCenterY;
    }
    if (!through) {
        printf("Center point click didn't go through abort\n");
        reset();
        done();
        return;
    }

    if (needX && !searchCenter(true)) {
        printf("Error no logical center X found reset it to middle\n");
        std::lock_guard hold(lock);
        emulateCenter.x = sentCenter.x = width / 2;
    }
    if (!needY) {
        done();
        return;
    }
    {
        std::lock_guard hold(lock);
        stepSize = 30;
    }
    if (!searchCenter(false)) {
        printf("Error no logical center Y found reset it to middle\n");
        std::lock_guard hold(lock);
        emulateCenter.y = sentCenter.y = height / 2;
    }
    done();
}

void OffsetCorrection::centerClick(bool alongX, int received)
{
    const int sent = alongX ? sentCenter.x : sentCenter.y;
    const int miss = sent - received;
    bool& lower = alongX ? centerInLeft : centerInTop;
    const bool wanted = centerBelow(alongX ? shiftXLeft : shiftYTop, miss);
    // The search has passed the centre: go back in smaller steps.
    if (wanted != lower) {
        stepSize /= 2;
        lower = wanted;
    }
    if (std::abs(miss) <= 2) {
        (alongX ? emulateCenter.x : emulateCenter.y) = sent;
        processStage = alongX ? FoundX : FoundY;
    }
    receiveCount = 2;
}

void OffsetCorrection::onMouseClicked(int x, int y)
{
    const GS* gs = GS::instance();
    const int width = gs->screenWidth, height = gs->screenHeight;
    std::lock_guard hold(lock);
    printf("touch evet ProcessStage: %d posX/posY:%d / %d\n", processStage, x, y);
    fflush(stdout);
    // The window's rim: such a click may be the desktop's clamping of a touch beyond it.
    if (x < 3 || y < 3 || x >= width - 2 || y >= height - 2)
        return;

    if (receiveCount < 2 && processStage < FoundY) {
        const bool first = receiveCount == 0;
        switch (processStage) {
        case Left:
        case Right:
            if (first || x != lastClick.x) {
                receiveCount = 1;
            } else if (processStage == Left) {
                hitLeft = sentLeft;
                shiftXLeft = sentLeft.x - x;
                printf("ShiftXLeft: %d\n", shiftXLeft);
                receiveCount = 2;
            } else {
                hitRight = sentRight;
                shiftXRight = x - sentRight.x;
                printf("ShiftXRight: %d\n", shiftXRight);
                receiveCount = 2;
            }
            break;
        case Top:
        case Bottom:
            if (first || y != lastClick.y) {
                receiveCount = 1;
            } else if (processStage == Top) {
                hitTop = sentTop;
                shiftYTop = sentTop.y - y;
                printf("ShiftYTop: %d\n", shiftYTop);
                receiveCount = 2;
            } else {
                hitBottom = sentBottom;
                shiftYBottom = y - sentBottom.y;
                printf("ShiftYBottom: %d\n", shiftYBottom);
                receiveCount = 2;
            }
            break;
        case CenterTest:
            if (first || x != lastClick.x || y != lastClick.y) {
                receiveCount = 1;
                break;
            }
            {
                const int dx = sentCenter.x - x;
                needCenterX = std::abs(dx) >= 4;
                if (!needCenterX)
                    emulateCenter.x = width / 2;
                centerInLeft = centerBelow(shiftXLeft, dx);
                const int dy = sentCenter.y - y;
                needCenterY = std::abs(dy) >= 4;
                if (!needCenterY)
                    emulateCenter.y = height / 2;
                centerInTop = centerBelow(shiftYTop, dy);
            }
            receiveCount = 2;
            printf("centerinleft: %d centerintop: %d\n", centerInLeft, centerInTop);
            break;
        case SearchX:
        case SearchY:
            if (receiveCount == 1)
                centerClick(processStage == SearchX, processStage == SearchX ? x : y);
            else
                receiveCount = 1;
            if (processStage == SearchX || processStage == FoundX)
                printf("FinalEmulateCenter.X: %d\n", emulateCenter.x);
            else
                printf("FinalEmulateCenter.Y: %d\n", emulateCenter.y);
            break;
        default:
            break;
        }
        fflush(stdout);
    }
    lastClick = {x, y};
    clickSeen = true;
}

void OffsetCorrection::done()
{
    running = false;
    WorkerThread::msleep(100);
    GS* gs = GS::instance();
    if (savedPointerMode == 0)
        gs->pointerMode = 0;
    {
        std::lock_guard hold(lock);
        printf("ShiftXLeft: %d ShiftXRight: %d ShiftYTop: %d ShiftYBottom: %d\n", shiftXLeft, shiftXRight, shiftYTop,
               shiftYBottom);
        fflush(stdout);
        const int a = emulateCenter.x - hitLeft.x;
        const int b = hitRight.x - emulateCenter.x;
        const int c = emulateCenter.y - hitTop.y;
        const int d = hitBottom.y - emulateCenter.y;
        ratioLeft = ratioOf(a, shiftXLeft);
        ratioRight = ratioOf(b, shiftXRight);
        ratioTop = ratioOf(c, shiftYTop);
        ratioBottom = ratioOf(d, shiftYBottom);

        if (isReal(ratioLeft)) {
            gs->offsetLeft = ratioLeft;
            gs->offsetC = emulateCenter.x;
        }
        // The upper bound is read from the left ratio, not the right: settled behaviour.
        if (ratioRight < 0.999 || ratioLeft > 1.001) {
            gs->offsetRight = ratioRight;
            gs->offsetC = emulateCenter.x;
        }
        if (isReal(ratioTop)) {
            gs->offsetTop = ratioTop;
            gs->offsetD = emulateCenter.y;
        }
        if (isReal(ratioBottom)) {
            gs->offsetBottom = ratioBottom;
            gs->offsetD = emulateCenter.y;
        }
    }
    ui->show(false);
    gs->saveUserSettings();
    emit finished();
}
