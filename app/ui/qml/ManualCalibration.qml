import QtQuick

// The manual calibration: texts in the middle, the crosshair on the point to press.
Item {
    id: mc
    property real rRatio: 1
    property string fontfamily: "Helvetica"
    property string iconFont: ""
    property int crossHairX: 0
    property int crossHairY: 0
    property bool isTouch: false
    property bool isFirstPoint: true
    property bool didAcFail: false
    property string acFailedText: ""
    property string optionalText: ""
    property string calibrationText: ""
    property string calibrationText2: ""
    property string calibrationUndoText: ""
    property string touchCalibPointText: ""
    property string stylusCalibPointText: ""
    property alias timerStarted: crosshair.timerStarted
    property alias dotOk: crosshair.dotOk

    function startTimer() { crosshair.startTimer() }
    function stopTimer() { crosshair.stopTimer() }
    function timedout() { crosshair.timedout() }

    Column {
        anchors.centerIn: parent
        spacing: 12 * mc.rRatio
        width: parent.width * 0.6
        Text {
            objectName: "acFailed"
            width: parent.width
            visible: mc.didAcFail
            text: mc.acFailedText
            color: "#d40000"
            font.family: mc.fontfamily
            font.pixelSize: 36 * mc.rRatio
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
        }
        Repeater {
            model: [
                { text: mc.optionalText, shown: mc.isTouch },
                { text: mc.calibrationText, shown: true },
                { text: mc.calibrationText2, shown: true },
                { text: mc.calibrationUndoText, shown: true }
            ]
            Text {
                width: parent.width
                visible: modelData.shown
                text: modelData.text.replace(/\n/g, "<br>")
                textFormat: Text.StyledText
                color: "#202020"
                font.family: mc.fontfamily
                font.pixelSize: 28 * mc.rRatio
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.WordWrap
            }
        }
    }

    Crosshair {
        id: crosshair
        rRatio: mc.rRatio
        isTouch: mc.isTouch
        iconFont: mc.iconFont
        x: mc.crossHairX - width / 2
        y: mc.crossHairY - height / 2
        nearTop: mc.crossHairY < 60 * mc.rRatio
        Behavior on x { NumberAnimation { duration: 200; easing.type: Easing.InOutCubic } }
        Behavior on y { NumberAnimation { duration: 200; easing.type: Easing.InOutCubic } }
    }

    // How to press the first point: hand for the finger, pen for the stylus.
    Row {
        x: crosshair.x + crosshair.width + 16 * mc.rRatio
        y: crosshair.y + (crosshair.height - height) / 2
        spacing: 10 * mc.rRatio
        opacity: mc.isFirstPoint ? 1 : 0
        Behavior on opacity { NumberAnimation { duration: 180 } }
        Text {
            text: mc.isTouch ? "\uf25a" : "\uf040"
            font.family: mc.iconFont
            font.pixelSize: 40 * mc.rRatio
            color: "#202020"
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            text: mc.isTouch ? mc.touchCalibPointText : mc.stylusCalibPointText
            font.family: mc.fontfamily
            font.pixelSize: 26 * mc.rRatio
            color: "#202020"
        }
    }
}
