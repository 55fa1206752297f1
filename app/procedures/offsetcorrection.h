#pragma once

#include "ioffsetcorrection.h"

#include <atomic>
#include <mutex>

class IBlobEmitter;
class IOffsetCorrectionUi;

// Measures how the desktop shifts or scales what it receives from the touch device, with no
// user: touches are injected at known points of a full-screen window and the window's clicks
// tell where they landed. Four edge ratios and the logical centre go to the settings, which
// the touch output applies. The screen is closed here; finished() tells the end.
class OffsetCorrection : public IOffsetCorrection {
    Q_OBJECT
public:
    struct EPoint {
        int x = 0;
        int y = 0;
    };

    // The stages of a run, in order.
    enum Stage { Left, Right, Top, Bottom, CenterTest, SearchX, FoundX, SearchY, FoundY };

    OffsetCorrection(IOffsetCorrectionUi* ui, IBlobEmitter* emitter);

    void start() override;
    void done();
    // Neutral offsets in the settings and in this run.
    void reset();

    void SendTouchEvent(EPoint p);
    void Wait(int ms);
    void SendSingleTouch(EPoint p);
    void SendTouchUntilReceived(EPoint p);

    double ratioLeft = 1.0, ratioTop = 1.0, ratioRight = 1.0, ratioBottom = 1.0;

public slots:
    void OnWindowOpened();
    // On a thread of its own: it waits for each click.
    void EmulateTouchEvents();
    void onMouseClicked(int x, int y);

private:
    // One edge: walks inward from it until a touch comes back twice.
    void probeEdge(Stage stage, const char* label, EPoint& sent, EPoint step0, int dx, int dy);
    // Moves the sent centre until it comes back where it was sent; false when it left the screen.
    bool searchCenter(bool alongX);
    // The reaction to a repeated centre click in the search stages.
    void centerClick(bool alongX, int received);

    IOffsetCorrectionUi* ui;
    IBlobEmitter* emitter;

    // The worker thread sends and the main thread receives; they meet under this lock, and the
    // worker polls clickSeen.
    std::mutex lock;
    int shiftXLeft = 0, shiftYTop = 0, shiftXRight = 0, shiftYBottom = 0;
    EPoint sentLeft, sentTop, sentRight, sentBottom, sentCenter;
    EPoint emulateCenter;
    EPoint hitLeft, hitTop, hitRight, hitBottom;
    EPoint lastClick;
    bool centerInLeft = false, centerInTop = false;
    int stepSize = 30;
    bool needCenterX = false, needCenterY = false;
    int processStage = Left;
    int receiveCount = 0;
    std::atomic<bool> clickSeen{false};
    std::atomic<bool> running{false};
    int savedPointerMode = 0;
};
