import QtQuick

// The document of every calibration screen and of the sensor viewer: the manual and bar
// calibration views, the offset view and a full-screen picture. Keys and mouse buttons
// become uiEvent ids for the procedure behind the screen.
Rectangle {
    id: root
    width: 1920
    height: 1080
    color: "white"
    focus: true

    property bool isLoading: false
    property int exposure: 0
    property bool isTouch: false
    property bool isFirstPoint: true
    property bool didAcFail: false
    property int buildType: 0
    property int imageCount: 0
    property int mcCrossHairX: 0
    property int mcCrossHairY: 0
    property string lrcCrosshairNoText: "1"
    property bool sensorViewerHelpVisible: false
    property string fontfamily: "Helvetica"
    property double rRatio: width / 1920.0
    property string loadingText: "LOADING..."

    property string optionalText: "<i>[This step is optional, continue to improve precision]</i>"
    property string calibrationTextTouch: "Press for a second on the red dot (see top left) using your finger to calibrate.\n"
    property string calibrationTextStylus: "Press briefly on the red dot with Stylus (no finger) to calibrate (see top left).\n"
    property string calibrationExitTextTouch: "Press [Esc] to <b>skip</b> the calibration"
    property string calibrationExitTextStylus: "Press [Esc] to <b>cancel</b> the calibration"
    property string calibrationUndoText: "Press [ENTER] to <b>undo</b> the last point"
    property string acFailedText: "AutoCalibration failed,\nit is required to calibrate with Stylus first.\nThen the Touch calibration can continue.\n"
    property string touchCalibPointText: "Use your finger to calibrate"
    property string stylusCalibPointText: "Use the stylus to calibrate"
    property string retryBtnText: "Retry"
    property string cancelBtnText: "Cancel"
    property string disturbanceFound: "Disturbance found. Remove objects from the screen and retry."
    property string confirmdisturbanceText: "CONFIRM DISTURBANCE"
    property string enterexitText: "[ENTER]: \tSwitch Filter\n[UP]: \tIncrease Exposure\n[DOWN]: \tDecrease Exposure\n[ESC]: \tExit"

    property string calibrationText: isTouch ? calibrationTextTouch : calibrationTextStylus
    property string calibrationText2: isTouch ? calibrationExitTextTouch : calibrationExitTextStylus

    signal uiDone()
    signal uiEvent(int id)
    signal mouseClicked(int x, int y)

    state: buildType === 1 ? "orin" : "zarvo"

    function showMc() { hideLoading(); mc.visible = true }
    function hideMc() { mc.visible = false }
    function showLrc() { hideLoading(); lrc.visible = true }
    function hideLrc() { lrc.visible = false }
    function showOffsetCorrection() { oc.visible = true }
    function hideOffsetCorrection() { oc.visible = false }
    function showDisturbanceDetected() {}
    function hideDisturbanceDetected() {}
    function updateImage() {
        hideLoading()
        picture.visible = true
        imageCount++
        // A new name each time, so that the provider is asked anew.
        picture.source = "image://img/" + imageCount
    }
    function showLoading() { isLoading = true; uiDone() }
    function hideLoading() { isLoading = false; uiDone() }
    function dotView() { return lrc.visible ? lrc : mc }
    function startTimer() { dotView().startTimer() }
    function stopTimer() { dotView().stopTimer() }
    function timedout() { dotView().timedout() }

    FontLoader {
        id: iconFont
        source: "qrc:/qml/fonts/fontawesome.ttf"
    }

    Keys.onPressed: (event) => {
        const dotViewShown = mc.visible || lrc.visible
        if (event.key === Qt.Key_D && (event.modifiers & Qt.ControlModifier))
            uiEvent(8)
        else if (event.key === Qt.Key_Escape)
            uiEvent(1)
        else if (event.key === Qt.Key_Return || event.key === Qt.Key_Enter) {
            uiEvent(3)
            if (dotViewShown)
                uiEvent(2)
        } else if (event.key === Qt.Key_B) {
            if (dotViewShown)
                uiEvent(2)
        } else if (event.key === Qt.Key_Up)
            uiEvent(4)
        else if (event.key === Qt.Key_Down)
            uiEvent(6)
        else if (event.key === Qt.Key_P)
            uiEvent(99)
        else
            return
        event.accepted = true
    }

    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.LeftButton | Qt.RightButton
        onClicked: (mouse) => {
            root.uiEvent(mouse.button === Qt.RightButton ? 1 : 3)
            root.mouseClicked(mouse.x, mouse.y)
        }
    }

    ManualCalibration {
        id: mc
        objectName: "manualCalibration"
        anchors.fill: parent
        visible: false
        rRatio: root.rRatio
        fontfamily: root.fontfamily
        iconFont: iconFont.name
        crossHairX: root.mcCrossHairX
        crossHairY: root.mcCrossHairY
        isTouch: root.isTouch
        isFirstPoint: root.isFirstPoint
        didAcFail: root.didAcFail
        acFailedText: root.acFailedText
        optionalText: root.optionalText
        calibrationText: root.calibrationText
        calibrationText2: root.calibrationText2
        calibrationUndoText: root.calibrationUndoText
        touchCalibPointText: root.touchCalibPointText
        stylusCalibPointText: root.stylusCalibPointText
    }

    LumerailCalibration {
        id: lrc
        objectName: "lumerailCalibration"
        anchors.fill: parent
        visible: false
        rRatio: root.rRatio
        fontfamily: root.fontfamily
        iconFont: iconFont.name
        isTouch: root.isTouch
        crosshairNoText: root.lrcCrosshairNoText
        calibrationExitTextStylus: root.calibrationExitTextStylus
        calibrationUndoText: root.calibrationUndoText
    }

    OffsetCorrection {
        id: oc
        objectName: "offsetCorrection"
        anchors.fill: parent
        visible: false
        rRatio: root.rRatio
        fontfamily: root.fontfamily
        loadingText: root.loadingText
    }

    Image {
        id: picture
        objectName: "picture"
        anchors.fill: parent
        visible: false
        cache: false
        fillMode: Image.PreserveAspectFit
    }

    Rectangle {
        anchors.fill: parent
        color: "white"
        visible: root.isLoading
        LoadingIndicator {
            anchors.centerIn: parent
            rRatio: root.rRatio
            fontfamily: root.fontfamily
            text: root.loadingText
        }
    }

    // The sensor viewer's help: keys and exposure.
    Rectangle {
        id: help
        visible: root.sensorViewerHelpVisible
        color: "#80000000"
        width: helpColumn.width + 30 * root.rRatio
        height: helpColumn.height + 30 * root.rRatio
        Column {
            id: helpColumn
            anchors.centerIn: parent
            spacing: 10 * root.rRatio
            Text {
                id: helpFirst
                color: "white"
                font.family: root.fontfamily
                font.pixelSize: Math.max(12, 20 * root.rRatio)
            }
            Text {
                id: helpSecond
                color: "white"
                font.family: root.fontfamily
                font.pixelSize: Math.max(12, 20 * root.rRatio)
            }
        }
    }

    states: [
        State {
            name: "zarvo"
            PropertyChanges { target: helpFirst; text: root.enterexitText }
            PropertyChanges { target: helpSecond; text: "Exposure: " + root.exposure }
            PropertyChanges { target: help; x: 20 * root.rRatio; y: 20 * root.rRatio }
        },
        State {
            name: "orin"
            PropertyChanges { target: helpFirst; text: root.confirmdisturbanceText }
            PropertyChanges { target: helpSecond; text: root.enterexitText }
            PropertyChanges {
                target: help
                x: (root.width - help.width) / 2
                y: root.height - help.height - 20 * root.rRatio
            }
        }
    ]
}
