#pragma once

#include "evector.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <string>

// Every tuning value, path and user choice of the system, reached from any thread.
// config/velora.conf is positional: the line number alone decides the member.
class GS : public QObject {
    Q_OBJECT
public:
    static constexpr int SettingsLines = 121;

    char* acConfPath = nullptr;
    std::string debugDir = "debug/";
    std::string sensorConfPath = "config/sensor.conf";
    std::string cyusbConfPath = "config/cyusb.conf";
    std::string stylusCalibrationPath = "/var/velora/stylus-velora.ini";
    std::string fingerCalibrationPath = "/var/velora/finger-velora.ini";
    char* intrinsicPath = nullptr;
    char* distortionPath = nullptr;
    std::string statusFilePath = "/var/velora/pensettings.ini";
    char* language = nullptr;
    char* hidGadgetPath = nullptr;
    char* inputEventPath = nullptr;
    char* unusedLine67 = nullptr;
    char* unusedLine68 = nullptr;
    char* unusedLine69 = nullptr;
    std::string mcCachePath = "/var/velora/mcCache";
    char* serialPortName = nullptr;
    std::string userSettingsPath = "/var/velora/user.ini";
    char* remoteConfPath = nullptr;
    char* applicationsDir = nullptr;
    char* iconsDir = nullptr;
    char* appListPath = nullptr;
    int sensorWidth = 752;
    int sensorHeight = 480;
    double locationThresholdFactor = 0.25;
    int frameSize = 752 * 480;
    int stylusBgFrames = 30;
    int stylusBgTopUpFrames = 5;
    int unusedLine77 = 5000;
    double stylusBgGain = 1.0;
    int regionalDeltaLimit = -1;
    int regionalBelowLimit = -1;
    int regionalBelowCountLevel = -5;
    EVector windowTopLeft{0, 0};
    EVector windowBottomRight{0, 0};
    double shadowDistance = 25.0;
    bool shadowEnabled = false;
    double shadowAngle = 20.0;
    double unusedLine95 = 40.0;
    double unusedLine78 = 0.6;
    int stylusExposure = 80;
    int calibrationExposure = 20;
    double unusedLine8 = 0.5;
    double bezierFactor = 0.5;
    double inertiaRadius = 0.8;
    bool unusedLine9 = false;
    int stylusThreshold = 230;
    int keepFrames = 0;
    int calibrationKeepFrames = 2;
    int unusedLine12 = 800;
    int unusedLine13 = 25;
    int unusedLine14 = 700;
    int unusedLine15 = 5;
    int mcCols = 5;
    int mcRows = 5;
    double mcMarginX = 0.02;
    double mcMarginY = 0.03;
    double mcTouchMarginX = 0.05;
    double mcTouchMarginY = 0.08;
    double extraCorrectionX = 376.0;
    double extraCorrectionY = 240.0;
    double extraCorrectionFactor = 1.0055;
    QString updaterKey = QStringLiteral("velora-updater");
    int disturbanceCheckMs = 2000;
    bool acDebug = false;
    char* uinputPath = nullptr;
    int profile = 0;
    double boxFactor = 3.0;
    int boxParameter = 200;
    double regionalSigmaFactor = 1.5;
    int boxEngineParameter = 20;
    double scanBoxShapeLimit = 0.6;
    double scanBoxShape2Ratio = 2.0;
    double scanBoxShape2Limit = 2.2;
    double scanBoxShape2A = 5.0;
    double scanBoxShape2B = 5.0;
    double scanBoxMinArea = 10.0;
    double scanBoxMinArcLength = 10.0;
    int regionalBelowCount = 12;
    // Written by the resolution watcher, read on the image thread.
    std::atomic<int> screenWidth{0};
    std::atomic<int> screenHeight{0};
    double blobFilterLeft = 1.0;
    double blobFilterRight = 1.0;
    double blobFilterTop = 1.0;
    double blobFilterBottom = 1.0;
    double gridBorderA = 1.0;
    double gridBorderB = 1.0;
    bool unusedLine94 = false;
    int boxStride = 4;
    int regionalRefreshLimit = 100;
    int fingerExposure = 30;
    int fingerThreshold = 30;
    double flatnessTight = 0.00406;
    double flatnessMedium = 0.01;
    double flatnessLoose = 0.022;
    double autoCorrectionLimit = 99.0;
    double verticalAlignLimit = 97.0;
    double unusedLine40 = 1.8;
    double unusedLine38 = 0;
    double unusedLine39 = 0;
    int targetFps = 45;
    int unusedLine113 = 90;
    int unusedLine114 = 95;
    int unusedLine115 = 30;
    int unusedLine116 = 30;
    int unusedLine119 = 0;
    int unusedLine50 = 12;
    int unusedLine51 = 3;
    // Lines without a factory default start at 0; the shipped file gives them.
    int windowX = 0;
    int windowY = 0;
    int windowWidth = 0;
    int windowHeight = 0;
    int binningX = 0;
    int binningY = 0;
    bool autoWindow = false;
    int fisheyeA = 0;
    int fisheyeB = 0;
    int fisheyeC = 0;
    int fisheyeD = 0;
    bool tableTopAc = false;
    bool unusedLine65 = false;
    // Changed by the menu's commands, read by the image thread.
    std::atomic<int> inputMode{0};
    bool autostart = true;
    EVector cornerTopLeft{0, 0};
    EVector cornerTopRight{0, 0};
    EVector cornerBottomRight{0, 0};
    EVector cornerBottomLeft{0, 0};
    EVector frameCentre{752 / 2, 480 / 2};
    double frameCentreDistance = EVector(752 / 2, 480 / 2).length();
    double distanceScale = 1.0;
    int brightLevel = 253;
    double blankingFactorFinger = 3.5;
    double blankingFactorStylus = 0;
    double blankingFactorFingerCopy = 3.5;
    double blankingFactorStylusCopy = 0;
    std::atomic<bool> verboseLog{false};
    double edgeStillDistance = 0.0;
    double edgeRadius = 0.8;
    double edgeInertia = 0.5;
    QString commandFilePath;
    QString answerFilePath;
    int spareInt = 0;
    bool spareFlag = false;
    bool scanBoxLargeCheck = false;
    std::atomic<double> offsetLeft{1.0};
    std::atomic<double> offsetRight{1.0};
    std::atomic<double> offsetC{0.0};
    std::atomic<double> offsetD{0.0};
    std::atomic<double> offsetTop{1.0};
    std::atomic<double> offsetBottom{1.0};
    QString guardKey = QStringLiteral("velora");
    int rightClickTolerance = 5;
    int rightClickTime = 600;
    int doubleClickTolerance = 15;
    int doubleClickTime = 700;
    bool spareFlag2 = false;
    std::atomic<int> pointerMode{0};
    int performanceLevel = 2;

    GS();
    ~GS() override;

    // Made on first use from the velora.conf beside the program, never deleted.
    // Raises ConfigFileError on a line that the system cannot run with.
    static GS* instance();
    // A new object filled from path, or null when the file cannot be opened.
    static GS* load(const QString& path);

    void init();
    void saveUserSettings();
    void loadUserSettings();

public slots:
    void onResolutionChanged(int width, int height);

private:
    void setLine(int line, const std::string& value);
    void recompute();
};
