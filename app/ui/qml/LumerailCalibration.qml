import QtQuick

// The bar calibration: the number of the point to press in the middle, with its texts.
Item {
    id: lrc
    property real rRatio: 1
    property string fontfamily: "Helvetica"
    property string iconFont: ""
    property bool isTouch: false
    property string crosshairNoText: "1"
    property string calibrationExitTextStylus: ""
    property string calibrationUndoText: ""
    property alias timerStarted: crosshair.timerStarted
    property alias dotOk: crosshair.dotOk

    function startTimer() { crosshair.startTimer() }
    function stopTimer() { crosshair.stopTimer() }
    function timedout() { crosshair.timedout() }

    Column {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: crosshair.top
        anchors.bottomMargin: 60 * lrc.rRatio
        spacing: 12 * lrc.rRatio
        Repeater {
            model: ["Press the following Lumerail calibration point (see red dots in corners):",
                    lrc.calibrationExitTextStylus, lrc.calibrationUndoText]
            Text {
                anchors.horizontalCenter: parent.horizontalCenter
                text: modelData
                textFormat: Text.StyledText
                color: "#202020"
                font.family: lrc.fontfamily
                font.pixelSize: 28 * lrc.rRatio
            }
        }
    }

    Crosshair {
        id: crosshair
        anchors.centerIn: parent
        width: 60 * lrc.rRatio
        rRatio: lrc.rRatio
        isTouch: lrc.isTouch
        iconFont: lrc.iconFont
        label: lrc.crosshairNoText
    }
}
