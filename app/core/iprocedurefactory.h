#pragma once

class ActivePen;
class IAutoCalibration;
class IAutoCalibrationUi;
class IBlobEmitter;
class IDisturbanceChecker;
class IImageSource;
class ILaserAlignment;
class ILumerailCalibration;
class ILumerailCalibrationUi;
class IManualCalibration;
class IManualCalibrationUi;
class IOffsetCorrection;
class IOffsetCorrectionUi;
class IPointerController;
class ISensorViewer;
class ISensorViewerUi;
class Sensor;

// Makes the procedures and their screens for the facade, which owns and deletes what it gets.
// Null means the build has no such procedure or screen: the facade then reports no result.
class IProcedureFactory {
public:
    virtual ~IProcedureFactory() = default;

    virtual IDisturbanceChecker* makeDisturbanceChecker() = 0;

    virtual IAutoCalibrationUi* makeAutoCalibrationUi(const char* language) = 0;
    virtual IManualCalibrationUi* makeManualCalibrationUi(const char* language) = 0;
    virtual ILumerailCalibrationUi* makeLumerailCalibrationUi(const char* language) = 0;
    virtual IOffsetCorrectionUi* makeOffsetCorrectionUi(const char* language) = 0;
    virtual ISensorViewerUi* makeSensorViewerUi(const char* language) = 0;

    virtual IAutoCalibration* makeAutoCalibration(IDisturbanceChecker* checker, IBlobEmitter* emitter) = 0;
    virtual IManualCalibration* makeManualCalibration(IManualCalibrationUi* ui, IBlobEmitter* emitter,
                                                      Sensor* sensor) = 0;
    virtual ILumerailCalibration* makeLumerailCalibration(ILumerailCalibrationUi* ui, IBlobEmitter* emitter,
                                                          Sensor* sensor) = 0;
    virtual ILaserAlignment* makeLaserAlignment(IBlobEmitter* emitter, IPointerController* pointer) = 0;
    virtual IOffsetCorrection* makeOffsetCorrection(IOffsetCorrectionUi* ui, IBlobEmitter* emitter) = 0;
    virtual ISensorViewer* makeSensorViewer(ISensorViewerUi* ui, IImageSource* source) = 0;
};
