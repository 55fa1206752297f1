#include "globalsettings.h"

#include "atomicwrite.h"
#include "configfileerror.h"
#include "resolutionchangenotifier.h"
#include "stringutil.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTextStream>
#include <QThread>

#include <array>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace {

// A number written in the file that no int can hold stops at the nearest end of the
// range instead of being undefined; text that is not a number is 0 already.
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

// What one line of velora.conf sets. Exactly one member pointer is used, by kind.
struct Line {
    enum Kind { Skip, Int, AtomicIntFlag, Double, Bool, BoolNonZero, String, CString };
    Kind kind = Skip;
    int GS::*i = nullptr;
    std::atomic<int> GS::*ai = nullptr;
    double GS::*d = nullptr;
    bool GS::*b = nullptr;
    std::string GS::*s = nullptr;
    char* GS::*c = nullptr;
};

Line I(int GS::*m) { Line l; l.kind = Line::Int; l.i = m; return l; }
Line IF(std::atomic<int> GS::*m) { Line l; l.kind = Line::AtomicIntFlag; l.ai = m; return l; }
Line D(double GS::*m) { Line l; l.kind = Line::Double; l.d = m; return l; }
Line B(bool GS::*m) { Line l; l.kind = Line::Bool; l.b = m; return l; }
Line BN(bool GS::*m) { Line l; l.kind = Line::BoolNonZero; l.b = m; return l; }
Line S(std::string GS::*m) { Line l; l.kind = Line::String; l.s = m; return l; }
Line C(char* GS::*m) { Line l; l.kind = Line::CString; l.c = m; return l; }

const std::array<Line, GS::SettingsLines>& lineTable()
{
    static const std::array<Line, GS::SettingsLines> table = {
        S(&GS::cyusbConfPath),           // 0
        S(&GS::sensorConfPath),          // 1
        I(&GS::sensorWidth),             // 2
        I(&GS::sensorHeight),            // 3
        I(&GS::stylusExposure),          // 4
        I(&GS::stylusThreshold),         // 5
        D(&GS::bezierFactor),            // 6
        D(&GS::inertiaRadius),           // 7
        D(&GS::unusedLine8),             // 8
        BN(&GS::unusedLine9),            // 9
        I(&GS::keepFrames),              // 10
        I(&GS::calibrationKeepFrames),   // 11
        I(&GS::unusedLine12),            // 12
        I(&GS::unusedLine13),            // 13
        I(&GS::unusedLine14),            // 14
        I(&GS::unusedLine15),            // 15
        C(&GS::acConfPath),              // 16
        S(&GS::debugDir),                // 17
        S(&GS::stylusCalibrationPath),   // 18
        S(&GS::statusFilePath),          // 19
        C(&GS::intrinsicPath),           // 20
        C(&GS::distortionPath),          // 21
        I(&GS::mcCols),                  // 22
        I(&GS::mcRows),                  // 23
        D(&GS::mcMarginX),               // 24
        D(&GS::mcMarginY),               // 25
        D(&GS::blobFilterTop),           // 26
        D(&GS::blobFilterRight),         // 27
        D(&GS::blobFilterBottom),        // 28
        D(&GS::blobFilterLeft),          // 29
        D(&GS::extraCorrectionX),        // 30
        D(&GS::extraCorrectionY),        // 31
        D(&GS::extraCorrectionFactor),   // 32
        Line{},                          // 33: kept only to hold the positions
        I(&GS::disturbanceCheckMs),      // 34
        B(&GS::acDebug),                 // 35
        C(&GS::uinputPath),              // 36
        D(&GS::boxFactor),               // 37
        D(&GS::unusedLine38),            // 38
        D(&GS::unusedLine39),            // 39
        D(&GS::unusedLine40),            // 40
        I(&GS::boxParameter),            // 41
        I(&GS::fingerExposure),          // 42
        I(&GS::fingerThreshold),         // 43
        D(&GS::flatnessTight),           // 44
        D(&GS::flatnessMedium),          // 45
        D(&GS::flatnessLoose),           // 46
        D(&GS::autoCorrectionLimit),     // 47
        D(&GS::verticalAlignLimit),      // 48
        IF(&GS::inputMode),              // 49
        I(&GS::unusedLine50),            // 50
        I(&GS::unusedLine51),            // 51
        C(&GS::language),                // 52
        I(&GS::windowX),                 // 53
        I(&GS::windowY),                 // 54
        I(&GS::windowWidth),             // 55
        I(&GS::windowHeight),            // 56
        B(&GS::autoWindow),              // 57
        I(&GS::binningY),                // 58
        I(&GS::binningX),                // 59
        I(&GS::fisheyeA),                // 60
        I(&GS::fisheyeB),                // 61
        I(&GS::fisheyeC),                // 62
        I(&GS::fisheyeD),                // 63
        B(&GS::tableTopAc),              // 64
        B(&GS::unusedLine65),            // 65
        C(&GS::hidGadgetPath),           // 66
        C(&GS::unusedLine67),            // 67
        C(&GS::unusedLine68),            // 68
        C(&GS::unusedLine69),            // 69
        S(&GS::mcCachePath),             // 70
        D(&GS::blankingFactorFinger),    // 71
        C(&GS::serialPortName),          // 72
        I(&GS::targetFps),               // 73
        I(&GS::stylusBgFrames),          // 74
        I(&GS::stylusBgTopUpFrames),     // 75
        D(&GS::stylusBgGain),            // 76
        I(&GS::unusedLine77),            // 77
        D(&GS::unusedLine78),            // 78
        D(&GS::shadowAngle),             // 79
        D(&GS::shadowDistance),          // 80
        B(&GS::shadowEnabled),           // 81
        D(&GS::locationThresholdFactor), // 82
        S(&GS::fingerCalibrationPath),   // 83
        D(&GS::mcTouchMarginX),          // 84
        D(&GS::mcTouchMarginY),          // 85
        S(&GS::userSettingsPath),        // 86
        D(&GS::blankingFactorStylus),    // 87
        C(&GS::inputEventPath),          // 88
        C(&GS::remoteConfPath),          // 89
        C(&GS::applicationsDir),         // 90
        C(&GS::iconsDir),                // 91
        C(&GS::appListPath),             // 92
        I(&GS::calibrationExposure),     // 93
        B(&GS::unusedLine94),            // 94
        D(&GS::unusedLine95),            // 95
        D(&GS::regionalSigmaFactor),     // 96
        I(&GS::boxEngineParameter),      // 97
        I(&GS::regionalDeltaLimit),      // 98
        I(&GS::regionalBelowLimit),      // 99
        D(&GS::scanBoxShapeLimit),       // 100
        D(&GS::scanBoxMinArea),          // 101
        D(&GS::scanBoxMinArcLength),     // 102
        D(&GS::scanBoxShape2Ratio),      // 103
        D(&GS::scanBoxShape2A),          // 104
        D(&GS::scanBoxShape2B),          // 105
        I(&GS::regionalBelowCountLevel), // 106
        I(&GS::regionalRefreshLimit),    // 107
        I(&GS::regionalBelowCount),      // 108
        D(&GS::scanBoxShape2Limit),      // 109
        D(&GS::edgeStillDistance),       // 110
        D(&GS::edgeRadius),              // 111
        D(&GS::edgeInertia),             // 112
        I(&GS::unusedLine113),           // 113
        I(&GS::unusedLine114),           // 114
        I(&GS::unusedLine115),           // 115
        I(&GS::unusedLine116),           // 116
        D(&GS::gridBorderA),             // 117
        D(&GS::gridBorderB),             // 118
        I(&GS::unusedLine119),           // 119
        B(&GS::scanBoxLargeCheck),       // 120
    };
    return table;
}

std::atomic<GS*> theInstance{nullptr};

void replace(char*& member, const std::string& value)
{
    delete[] member;
    StringUtil::copy(value, &member);
}

} // namespace

GS::GS()
{
    StringUtil::copy("config/ac.conf", &acConfPath);
    StringUtil::copy("config/intrinsic.xml", &intrinsicPath);
    StringUtil::copy("config/distortion.xml", &distortionPath);
    StringUtil::copy("en", &language);
    StringUtil::copy("/dev/hidg1", &hidGadgetPath);
    StringUtil::copy("/dev/input/event4", &inputEventPath);
    StringUtil::copy("ttyS3", &serialPortName);
    StringUtil::copy("config/remote.conf", &remoteConfPath);
    StringUtil::copy("/usr/share/applications/", &applicationsDir);
    StringUtil::copy("/usr/share/icons/matefaenza/apps/scalable/", &iconsDir);
    StringUtil::copy("/usr/local/bin/velora/config/applist.ini", &appListPath);
    StringUtil::copy("/dev/uinput", &uinputPath);
}

GS::~GS()
{
    for (char* GS::*m : {&GS::acConfPath, &GS::intrinsicPath, &GS::distortionPath, &GS::language,
                         &GS::hidGadgetPath, &GS::inputEventPath, &GS::unusedLine67, &GS::unusedLine68,
                         &GS::unusedLine69, &GS::serialPortName, &GS::remoteConfPath,
                         &GS::applicationsDir, &GS::iconsDir, &GS::appListPath, &GS::uinputPath})
        delete[] (this->*m);
}

GS* GS::instance()
{
    if (GS* gs = theInstance.load())
        return gs;
    qDebug() << "Making a new instance of global settings";
    const QString path = QCoreApplication::applicationDirPath() + QDir::separator() + "config/velora.conf";
    GS* gs = load(path);
    if (!gs)
        gs = new GS();
    theInstance = gs;
    gs->loadUserSettings();
    return gs;
}

void GS::setLine(int line, const std::string& value)
{
    const Line& l = lineTable()[line];
    const double number = std::strtod(value.c_str(), nullptr);
    switch (l.kind) {
    case Line::Skip: break;
    case Line::Int: this->*l.i = toInt(number); break;
    case Line::AtomicIntFlag: this->*l.ai = number != 0.0 ? 1 : 0; break;
    case Line::Double: this->*l.d = number; break;
    case Line::Bool: this->*l.b = number == 1.0; break;
    case Line::BoolNonZero: this->*l.b = number != 0.0; break;
    case Line::String: this->*l.s = value; break;
    case Line::CString: replace(this->*l.c, value); break;
    }
}

GS* GS::load(const QString& path)
{
    setlocale(LC_ALL, "C");
    qDebug() << "Loading global settings from" << path;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    const QByteArray content = file.readAll();

    auto* gs = new GS();
    // A trailing line feed gives one more, empty line: the member behind the last line
    // is then set from an empty value. That is how the factory file has always been read.
    const QList<QByteArray> lines = content.split('\n');
    for (int n = 0; n < lines.size() && n < SettingsLines; ++n) {
        const std::string raw = lines[n].toStdString();
        const size_t eq = raw.find('=');
        const std::string value = eq == std::string::npos ? raw : raw.substr(eq + 1);
        std::string trimmed;
        try {
            trimmed = StringUtil::trim(value);
        } catch (const std::out_of_range&) {
            delete gs;
            throw ConfigFileError(path.toStdString(), n + 1,
                                  "the value of setting " + std::to_string(n)
                                      + " is only blanks; give a value or leave it empty");
        }
        gs->setLine(n, trimmed);
    }

    const QString base = QStandardPaths::locate(QStandardPaths::DocumentsLocation, QString(),
                                                QStandardPaths::LocateDirectory)
        + "Velora";
    auto userPath = [&](const char* name) { return (base + QDir::separator() + name).toStdString(); };
    gs->statusFilePath = userPath("pensettings.ini");
    gs->stylusCalibrationPath = userPath("stylus-velora.ini");
    gs->fingerCalibrationPath = userPath("finger-velora.ini");
    gs->mcCachePath = userPath("mcCache");
    gs->userSettingsPath = userPath("user.ini");
    gs->commandFilePath = QString::fromStdString(userPath("fifo1"));
    gs->answerFilePath = QString::fromStdString(userPath("refifo"));
    gs->debugDir = userPath("debug");
    gs->recompute();
    return gs;
}

void GS::recompute()
{
    frameSize = toInt(double(sensorWidth) * sensorHeight);
    frameCentre = EVector(sensorWidth / 2, sensorHeight / 2);
    frameCentreDistance = frameCentre.length();
    blankingFactorFingerCopy = blankingFactorFinger;
    blankingFactorStylusCopy = blankingFactorStylus;
}

void GS::init()
{
    int w, h;
    ResolutionChangeNotifier::desktopSize(&w, &h);
    screenWidth = w;
    screenHeight = h;
    // Relative to the desktop width at start; init runs once.
    edgeStillDistance = edgeStillDistance / screenWidth * 1920.0;
    connect(ResolutionChangeNotifier::instance(), &ResolutionChangeNotifier::resolutionChanged, this,
            &GS::onResolutionChanged);
}

void GS::onResolutionChanged(int width, int height)
{
    screenWidth = width;
    screenHeight = height;
}

void GS::saveUserSettings()
{
    QByteArray text;
    QTextStream out(&text);
    out << inputMode.load() << '\n'
        << profile << '\n'
        << (autostart ? 1 : 0) << '\n'
        << pointerMode.load() << '\n'
        << performanceLevel << '\n'
        << offsetLeft.load() << '\n'
        << offsetRight.load() << '\n'
        << offsetC.load() << '\n'
        << offsetD.load() << '\n'
        << offsetTop.load() << '\n'
        << offsetBottom.load();
    out.flush();
    if (!writeFileWhole(QString::fromStdString(userSettingsPath), text))
        qDebug() << "user settings could not be written to" << QString::fromStdString(userSettingsPath);
}

void GS::loadUserSettings()
{
    qDebug() << "load user settings";
    QFile file(QString::fromStdString(userSettingsPath));
    if (file.open(QIODevice::ReadOnly)) {
        QTextStream in(&file);
        int n = 0;
        while (!in.atEnd()) {
            const QString line = in.readLine();
            switch (n++) {
            case 0: inputMode = line.toInt(); break;
            case 1: profile = line.toInt(); break;
            case 2: autostart = line.toInt() != 0; break;
            case 3: pointerMode = line.toInt(); break;
            case 4: performanceLevel = line.toInt(); break;
            case 5: offsetLeft = line.toDouble(); break;
            case 6: offsetRight = line.toDouble(); break;
            case 7: offsetC = line.toDouble(); break;
            case 8: offsetD = line.toDouble(); break;
            case 9: offsetTop = line.toDouble(); break;
            case 10: offsetBottom = line.toDouble(); break;
            default: break;
            }
        }
    } else if (QThread::idealThreadCount() < 4) {
        performanceLevel = 0;
    }
    qDebug() << "loaded user settings, profile is" << profile << "autostart is"
             << (autostart ? "true" : "false");
}
