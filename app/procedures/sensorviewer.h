#pragma once

#include "isensorviewer.h"

class IImageSource;
class ISensorViewerUi;
class QTimer;

// The live camera picture for a fitter: Up and Down step the exposure, Enter swings the
// filter, Esc leaves. Everything runs on the main thread.
class SensorViewer : public ISensorViewer {
    Q_OBJECT
public:
    SensorViewer(ISensorViewerUi* ui, IImageSource* source);
    ~SensorViewer() override;

    void start() override;
    void stop();
    bool isDebugging() const;

public slots:
    void drawImage();
    void onUiEvent(int id);

private:
    void changeExposure(int step);

    ISensorViewerUi* ui;
    IImageSource* source;
    QTimer* drawTimer;
    bool debugging = false;
};
