#include "procedurefactory.h"

#include "autocalibration.h"
#include "autocalibrationui.h"
#include "disturbancechecker.h"
#include "laseralignment.h"
#include "laseralignui.h"
#include "lumerailcalibration.h"
#include "lumerailcalibrationui.h"
#include "manualcalibration.h"
#include "manualcalibrationui.h"
#include "offsetcorrection.h"
#include "offsetcorrectionui.h"
#include "sensorviewer.h"
#include "sensorviewerui.h"

IDisturbanceChecker* ProcedureFactory::makeDisturbanceChecker()
{
    return new DisturbanceChecker();
}

IAutoCalibrationUi* ProcedureFactory::makeAutoCalibrationUi(const char*)
{
    // The screens read the language setting themselves.
    return new AutoCalibrationUi();
}

IManualCalibrationUi* ProcedureFactory::makeManualCalibrationUi(const char*)
{
    return new ManualCalibrationUi();
}

ILumerailCalibrationUi* ProcedureFactory::makeLumerailCalibrationUi(const char*)
{
    return new LumerailCalibrationUi();
}

IOffsetCorrectionUi* ProcedureFactory::makeOffsetCorrectionUi(const char*)
{
    return new OffsetCorrectionUi();
}

ISensorViewerUi* ProcedureFactory::makeSensorViewerUi(const char*)
{
    return new SensorViewerUi();
}

IAutoCalibration* ProcedureFactory::makeAutoCalibration(IDisturbanceChecker* checker, IBlobEmitter* emitter)
{
    return new AutoCalibration(checker, emitter);
}

IManualCalibration* ProcedureFactory::makeManualCalibration(IManualCalibrationUi* ui, IBlobEmitter* emitter,
                                                            Sensor* sensor)
{
    return new ManualCalibration(ui, emitter, sensor);
}

ILumerailCalibration* ProcedureFactory::makeLumerailCalibration(ILumerailCalibrationUi* ui, IBlobEmitter* emitter,
                                                                Sensor* sensor)
{
    return new LumerailCalibration(ui, emitter, sensor);
}

ILaserAlignment* ProcedureFactory::makeLaserAlignment(IBlobEmitter* emitter, IPointerController* pointer)
{
    return new LaserAlignment(emitter, pointer, new LaserAlignUi(), new DisturbanceChecker());
}

IOffsetCorrection* ProcedureFactory::makeOffsetCorrection(IOffsetCorrectionUi* ui, IBlobEmitter* emitter)
{
    return new OffsetCorrection(ui, emitter);
}

ISensorViewer* ProcedureFactory::makeSensorViewer(ISensorViewerUi* ui, IImageSource* source)
{
    return new SensorViewer(ui, source);
}
