#pragma once

#include "iprocedurefactory.h"

// The procedures and screens of this build. What is not built yet is null, and the facade
// then ends such a run at once with no result.
class ProcedureFactory : public IProcedureFactory {
public:
    IDisturbanceChecker* makeDisturbanceChecker() override;

    IAutoCalibrationUi* makeAutoCalibrationUi(const char* language) override;
    IManualCalibrationUi* makeManualCalibrationUi(const char* language) override;
    ILumerailCalibrationUi* makeLumerailCalibrationUi(const char* language) override;
    IOffsetCorrectionUi* makeOffsetCorrectionUi(const char* language) override;
    ISensorViewerUi* makeSensorViewerUi(const char* language) override;

    IAutoCalibration* makeAutoCalibration(IDisturbanceChecker* checker, IBlobEmitter* emitter) override;
    IManualCalibration* makeManualCalibration(IManualCalibrationUi* ui, IBlobEmitter* emitter,
                                              Sensor* sensor) override;
    ILumerailCalibration* makeLumerailCalibration(ILumerailCalibrationUi* ui, IBlobEmitter* emitter,
                                                  Sensor* sensor) override;
    ILaserAlignment* makeLaserAlignment(IBlobEmitter* emitter, IPointerController* pointer) override;
    IOffsetCorrection* makeOffsetCorrection(IOffsetCorrectionUi* ui, IBlobEmitter* emitter) override;
    ISensorViewer* makeSensorViewer(ISensorViewerUi* ui, IImageSource* source) override;
};
