import QtQuick
import com.zarvo 1.0

// The laser alignment: the dots the program lists in laserAlignDots, and per step its texts
// and buttons. Buttons and radio buttons call uiCallback.onUiEvent; keys go out as uiEvent.
// An orange marker walks the controls for a remote control without a mouse.
Rectangle {
    id: root
    width: 1920
    height: 1080
    color: "white"
    focus: true

    property int accuracyThreshold: 99
    property bool isDebug: false
    property string debugText: ""
    property bool isPhysicalDone: false
    property bool isAutoCorrect: false
    property bool isLaserPosFlipped: false
    property bool isInfo: true
    property bool isInit: false
    property color activeColor: "#00acea"
    property color doneColor: "#009d05"
    property color inActiveColor: "transparent"
    property color partialDoneColor: "#ffff00"
    property bool partial: false
    property int debugRadius: 5
    property string bezelOptionStr: ""
    property int bezelOptionIndex: 0
    property int markedIdxV: 0
    property int markedIdxH: 0
    property var markedTargets: []
    property double rRatio: width / 1920.0
    property int screenIndex: 0
    property bool isLoading: false
    property double normalFontSize: 25 * rRatio
    property double smallFontSize: 22 * rRatio
    property string fontfamily: "Arial"
    property string loadingText: "LOADING..."
    property string view: ""

    property string fixFingerTouchModuleTextOn: "Fix the Touch Unit above and centred with this line and switch it on."
    property string surfaceFlatnessText: "1. Flatness of Surface: "
    property string distanceToTouchUnitText: "2. Distance to Touch Unit: "
    property string resetGearAText: "3. Adjust Gear-A max. counter-clockwise (rotate left to reset)."
    property string adjustGearAText: "4. Adjust Gear-A clockwise (rotate right) until the dot turns green (see below)."
    property string resetGearBText: "1. Adjust Gear-B max. Counter Clockwise (rotate left to reset)."
    property string adjustGearBText: "2. Press dot below and adjust Gear-B (Clockwise) until the dot turns green."
    property string pressAndHoldText: "Press & hold each dot until it turns green."
    property string adjustGearACwText: "Adjust Gear-A Clockwise"
    property string pressAndHoldText2: "Press & hold finger"
    property string adjustGearBCwText: "Adjust Gear-B Clockwise"
    property string accuracyText: "Accuracy"
    property string continueText: "Continue"
    property string finishText: "Exit"
    property string retryBtnText: "Retry"
    property string cancelBtnText: "Cancel"
    property string disturbanceFound: "Disturbance found. Remove objects from the screen and retry."
    property string laserFarText: "Far"
    property string laserMediumText: "Medium"
    property string laserCloseText: "Close"
    property string surfaceUneven: "Uneven"
    property string surfaceModerate: "Moderate"
    property string surfaceEven: "Even"

    // Controls: neither blue nor green, the colours that tell a dot's state.
    readonly property color buttonColor: "#4a4a4a"
    readonly property color toggledColor: "#2e2e2e"
    readonly property color markerColor: "#ff8c00"

    signal uiDone()
    signal uiEvent(int id)
    signal mouseClicked(int x, int y)

    function showLoading() { isLoading = true; uiDone() }
    function hideLoading() { isLoading = false; uiDone() }

    function showVerticalAlign() {
        view = "vertical"
        isAutoCorrect = false
        markedTargets = [[evenButton, moderateButton, unevenButton], [farButton, mediumButton, closeButton],
                         [continueButton, exitButton]]
        markedIdxV = 2
        markedIdxH = 0
        moveMarker()
    }
    function showHorizontalAlign() {
        view = "horizontal"
        isAutoCorrect = false
        isPhysicalDone = false
        markedTargets = [[continueButton, exitButton]]
        markedIdxV = 0
        markedIdxH = 0
        moveMarker()
    }
    function showAutoCorrection() {
        view = "auto"
        isAutoCorrect = true
        isPhysicalDone = true
        markedTargets = [[autoExitButton]]
        markedIdxV = 0
        markedIdxH = 0
        moveMarker()
    }
    property var viewTargets: []
    function showDisturbanceFound() {
        disturbanceView.visible = true
        viewTargets = markedTargets
        markedTargets = [[retryButton, cancelButton]]
        markedIdxV = 0
        markedIdxH = 0
        moveMarker()
    }
    function hideDisturbanceFound() {
        disturbanceView.visible = false
        if (viewTargets.length > 0)
            markedTargets = viewTargets
        markedIdxV = 0
        markedIdxH = 0
        moveMarker()
    }

    function moveMarker() {
        if (markedTargets.length === 0) {
            marker.visible = false
            return
        }
        markedIdxV = (markedIdxV % markedTargets.length + markedTargets.length) % markedTargets.length
        const row = markedTargets[markedIdxV]
        markedIdxH = (markedIdxH % row.length + row.length) % row.length
        const target = row[markedIdxH]
        const p = target.mapToItem(root, 0, 0)
        marker.x = p.x - 3
        marker.y = p.y - 3
        marker.width = target.width + 6
        marker.height = target.height + 6
        marker.visible = target.visible
    }

    function updateLaserAlignDots() {
        const n = laserAlignDots.length()
        if (dotRepeater.model !== n) {
            dotRepeater.model = n
            debugRepeater.model = n
        }
        for (let i = 0; i < n; ++i) {
            const dot = dotRepeater.itemAt(i)
            const debugPoint = debugRepeater.itemAt(i)
            if (!dot || !debugPoint)
                continue
            dot.x = laserAlignDots.getX(i) - 30 * rRatio
            dot.y = laserAlignDots.getY(i) - 30 * rRatio
            dot.accuracy = laserAlignDots.getAccuracy(i)
            dot.active = laserAlignDots.isActive(i)
            dot.isBusy = laserAlignDots.isBusy(i)
            dot.showHand = laserAlignDots.isHandIcon(i)
            dot.showHandInverted = laserAlignDots.isHandIconInverted(i)
            dot.showRightAlignInfo = laserAlignDots.isRightAlignInfo(i)
            dot.showLeftAlignInfo = laserAlignDots.isLeftAlignInfo(i)
            dot.visible = laserAlignDots.isVisible(i)
            dot.intensity = laserAlignDots.getIntensity(i)
            dot.maxIntensity = laserAlignDots.getMaxIntensity(i)
            dot.customDoneText = laserAlignDots.getCustomDoneText(i)
            dot.attachMarkerAngle = laserAlignDots.getAttachMarkerAngle(i)
            dot.infoType = laserAlignDots.getInfoType(i)
            dot.customAccuracyText = laserAlignDots.getCustomAccuracyText(i)
            dot.shiftValue = laserAlignDots.getShiftValue(i)
            if (dot.isBusy)
                dot.restartBusy()
            debugPoint.x = laserAlignDots.getDebugX(i) - 5
            debugPoint.y = laserAlignDots.getDebugY(i) - 5
        }
    }

    BlobContainer {
        id: laserAlignDots
        objectName: "laserAlignDots"
    }

    FontLoader {
        id: iconFont
        source: "qrc:/qml/fonts/fontawesome.ttf"
    }

    Keys.onPressed: (event) => {
        if (event.key === Qt.Key_D && (event.modifiers & Qt.ControlModifier)) {
            isDebug = !isDebug
        } else if (event.key === Qt.Key_Escape) {
            uiEvent(1)
        } else if (event.key === Qt.Key_Return || event.key === Qt.Key_Enter) {
            if (marker.visible && markedTargets.length > 0)
                markedTargets[markedIdxV][markedIdxH].click()
        } else if (event.key === Qt.Key_Up) {
            markedIdxV--; moveMarker(); uiCallback.onUiEvent(4)
        } else if (event.key === Qt.Key_Right) {
            markedIdxH++; moveMarker(); uiCallback.onUiEvent(5)
        } else if (event.key === Qt.Key_Down) {
            markedIdxV++; moveMarker(); uiCallback.onUiEvent(6)
        } else if (event.key === Qt.Key_Left) {
            markedIdxH--; moveMarker(); uiCallback.onUiEvent(7)
        } else {
            return
        }
        event.accepted = true
    }

    // A button: calls back with bIndex when toggled, else with altBIndex.
    component SimpleButton: Rectangle {
        id: button
        property string text: ""
        property int bIndex: 0
        property int altBIndex: bIndex
        property bool toggled: false
        width: Math.max(220 * root.rRatio, label.implicitWidth + 40 * root.rRatio)
        height: 64 * root.rRatio
        radius: 6 * root.rRatio
        color: root.buttonColor
        function click() { uiCallback.onUiEvent(toggled ? bIndex : altBIndex) }
        Text {
            id: label
            anchors.centerIn: parent
            text: button.text
            color: "white"
            font.family: root.fontfamily
            font.pixelSize: root.normalFontSize
        }
        MouseArea { anchors.fill: parent; onClicked: button.click() }
    }

    // A radio button of a row: a click clears the others of its row and reports bIndex.
    component RadioButton: Rectangle {
        id: radio
        property string text: ""
        property int bIndex: 0
        property bool toggled: false
        property bool unToggleOthers: true
        property var group: []
        width: Math.max(170 * root.rRatio, radioLabel.implicitWidth + 70 * root.rRatio)
        height: 50 * root.rRatio
        radius: 4 * root.rRatio
        color: "#f0f0f0"
        border.color: "#9a9a9a"
        function click() {
            if (unToggleOthers)
                for (let i = 0; i < group.length; ++i)
                    if (group[i] !== radio)
                        group[i].toggled = false
            toggled = true
            if (bIndex > 0 && toggled)
                uiCallback.onUiEvent(bIndex)
        }
        Rectangle {
            id: knob
            x: 14 * root.rRatio
            anchors.verticalCenter: parent.verticalCenter
            width: 22 * root.rRatio
            height: width
            radius: width / 2
            border.color: root.toggledColor
            border.width: 2
            color: "white"
            Rectangle {
                anchors.centerIn: parent
                width: parent.width / 2
                height: width
                radius: width / 2
                color: root.toggledColor
                visible: radio.toggled
            }
        }
        Text {
            id: radioLabel
            anchors.left: knob.right
            anchors.leftMargin: 12 * root.rRatio
            anchors.verticalCenter: parent.verticalCenter
            text: radio.text
            font.family: root.fontfamily
            font.pixelSize: root.smallFontSize
            color: "#202020"
        }
        MouseArea { anchors.fill: parent; onClicked: radio.click() }
    }

    // The finger unit as seen from the front, with its two gears.
    component UnitPicture: Item {
        width: 360 * root.rRatio
        height: 120 * root.rRatio
        Rectangle {
            anchors.fill: parent
            radius: 10 * root.rRatio
            color: "#d8d8d8"
            border.color: "#6a6a6a"
            border.width: 2
        }
        Repeater {
            model: ["A", "B"]
            Column {
                x: (index === 0 ? 0.22 : 0.62) * parent.width
                anchors.verticalCenter: parent.verticalCenter
                Text {
                    text: "\uf013"
                    font.family: iconFont.name
                    font.pixelSize: 54 * root.rRatio
                    color: "#505050"
                    anchors.horizontalCenter: parent.horizontalCenter
                }
                Text {
                    text: "Gear-" + modelData
                    font.family: root.fontfamily
                    font.pixelSize: root.smallFontSize
                    color: "#303030"
                    anchors.horizontalCenter: parent.horizontalCenter
                }
            }
        }
    }

    // The mechanical steps' texts and buttons, in the middle of the screen.
    Column {
        id: instructions
        anchors.centerIn: parent
        spacing: 22 * root.rRatio
        visible: root.view === "vertical" || root.view === "horizontal"

        Row {
            spacing: 16 * root.rRatio
            visible: root.view === "vertical"
            Text {
                width: 380 * root.rRatio
                text: root.surfaceFlatnessText
                font.family: root.fontfamily
                font.pixelSize: root.normalFontSize
                anchors.verticalCenter: parent.verticalCenter
            }
            RadioButton { id: evenButton; text: root.surfaceEven; bIndex: 6004; toggled: true; group: [evenButton, moderateButton, unevenButton] }
            RadioButton { id: moderateButton; text: root.surfaceModerate; bIndex: 6005; group: [evenButton, moderateButton, unevenButton] }
            RadioButton { id: unevenButton; text: root.surfaceUneven; bIndex: 6006; group: [evenButton, moderateButton, unevenButton] }
        }
        Row {
            spacing: 16 * root.rRatio
            visible: root.view === "vertical"
            Text {
                width: 380 * root.rRatio
                text: root.distanceToTouchUnitText
                font.family: root.fontfamily
                font.pixelSize: root.normalFontSize
                anchors.verticalCenter: parent.verticalCenter
            }
            RadioButton { id: farButton; text: root.laserFarText; bIndex: 6001; toggled: true; group: [farButton, mediumButton, closeButton] }
            RadioButton { id: mediumButton; text: root.laserMediumText; bIndex: 6002; group: [farButton, mediumButton, closeButton] }
            RadioButton { id: closeButton; text: root.laserCloseText; bIndex: 6003; group: [farButton, mediumButton, closeButton] }
        }
        Text {
            text: root.view === "vertical" ? root.resetGearAText : root.resetGearBText
            font.family: root.fontfamily
            font.pixelSize: root.normalFontSize
        }
        Text {
            text: root.view === "vertical" ? root.adjustGearAText : root.adjustGearBText
            font.family: root.fontfamily
            font.pixelSize: root.normalFontSize
        }
        UnitPicture { anchors.horizontalCenter: parent.horizontalCenter }
        Row {
            anchors.horizontalCenter: parent.horizontalCenter
            spacing: 40 * root.rRatio
            SimpleButton { id: continueButton; text: root.continueText; bIndex: 5004 }
            SimpleButton { id: exitButton; text: root.finishText; bIndex: 5000 }
        }
    }

    // Where the unit goes: a red line at the top centre, in the first step only.
    Item {
        visible: root.view === "vertical"
        x: root.width / 2
        y: 0
        Rectangle {
            width: 4 * root.rRatio
            height: 160 * root.rRatio
            color: "red"
        }
        Text {
            x: 20 * root.rRatio
            y: 60 * root.rRatio
            text: root.fixFingerTouchModuleTextOn
            font.family: root.fontfamily
            font.pixelSize: root.normalFontSize
            color: "#b00000"
        }
    }

    // Between the rows of dots, clear of the middle one.
    Column {
        visible: root.view === "auto"
        anchors.centerIn: parent
        anchors.verticalCenterOffset: -root.height * 0.2
        spacing: 30 * root.rRatio
        Text {
            text: root.pressAndHoldText
            font.family: root.fontfamily
            font.pixelSize: root.normalFontSize * 1.2
            anchors.horizontalCenter: parent.horizontalCenter
        }
        SimpleButton {
            id: autoExitButton
            text: root.finishText
            bIndex: 5000
            anchors.horizontalCenter: parent.horizontalCenter
        }
    }

    Repeater {
        id: dotRepeater
        model: 0
        delegate: Item {
            id: dot
            property int accuracy: 0
            property bool active: false
            property bool isBusy: false
            property bool showHand: false
            property bool showHandInverted: false
            property bool showRightAlignInfo: false
            property bool showLeftAlignInfo: false
            property double intensity: 0
            property double maxIntensity: 0
            property string customDoneText: ""
            property int attachMarkerAngle: -1
            property int infoType: -1
            property string customAccuracyText: ""
            property string shiftValue: ""
            readonly property bool done: accuracy >= root.accuracyThreshold
            width: 60 * root.rRatio
            height: width
            z: 2
            function restartBusy() { busyTimer.restart() }

            Behavior on accuracy { NumberAnimation { duration: 350; easing.type: Easing.InOutCubic } }
            Timer { id: busyTimer; interval: 1200; onTriggered: dot.isBusy = false }

            Rectangle {
                anchors.fill: parent
                radius: width / 2
                color: dot.done ? (root.partial ? root.partialDoneColor : root.doneColor)
                                : dot.active ? root.activeColor : root.inActiveColor
            }
            Rectangle {
                visible: !dot.done && (dot.active || dot.accuracy > 0)
                anchors.centerIn: parent
                width: 14 * root.rRatio
                height: width
                radius: width / 2
                color: "white"
            }
            Text {
                visible: dot.done
                anchors.centerIn: parent
                text: "\uf00c"
                font.family: iconFont.name
                font.pixelSize: 36 * root.rRatio
                color: "white"
            }
            Text {
                visible: dot.accuracy > 0 && (dot.isBusy || dot.done)
                anchors.bottom: parent.top
                anchors.bottomMargin: 8 * root.rRatio
                anchors.horizontalCenter: parent.horizontalCenter
                text: (dot.customAccuracyText !== "" ? dot.customAccuracyText : root.accuracyText) + " "
                      + Math.round(dot.accuracy) + "%"
                font.family: root.fontfamily
                font.pixelSize: root.smallFontSize
                color: "#202020"
            }
            Row {
                visible: dot.showHand
                layoutDirection: dot.showHandInverted ? Qt.RightToLeft : Qt.LeftToRight
                spacing: 8 * root.rRatio
                x: dot.showHandInverted ? -width - 10 * root.rRatio : dot.width + 10 * root.rRatio
                anchors.verticalCenter: parent.verticalCenter
                Text {
                    text: "\uf0a6"
                    font.family: iconFont.name
                    font.pixelSize: 40 * root.rRatio
                    color: "#505050"
                }
                Text {
                    text: root.pressAndHoldText2
                    font.family: root.fontfamily
                    font.pixelSize: root.smallFontSize
                    color: "#303030"
                    anchors.verticalCenter: parent.verticalCenter
                }
            }
            // The gear hint above the dot: which gear to turn, clockwise.
            Column {
                visible: dot.infoType === 0 || dot.infoType === 2
                anchors.bottom: parent.top
                anchors.bottomMargin: 44 * root.rRatio
                anchors.horizontalCenter: parent.horizontalCenter
                Text {
                    text: "\uf01e"
                    font.family: iconFont.name
                    font.pixelSize: 48 * root.rRatio
                    color: "#505050"
                    anchors.horizontalCenter: parent.horizontalCenter
                }
                Text {
                    text: dot.infoType === 0 ? root.adjustGearACwText : root.adjustGearBCwText
                    font.family: root.fontfamily
                    font.pixelSize: root.smallFontSize
                    color: "#303030"
                    anchors.horizontalCenter: parent.horizontalCenter
                }
            }
            Text {
                visible: root.isDebug
                anchors.top: parent.bottom
                anchors.horizontalCenter: parent.horizontalCenter
                text: "  shift: " + dot.shiftValue
                font.family: root.fontfamily
                font.pixelSize: root.smallFontSize * 0.8
            }
        }
    }

    Repeater {
        id: debugRepeater
        model: 0
        delegate: Rectangle {
            width: 10
            height: 10
            z: 3
            color: "#ff00ff"
            visible: root.isDebug && root.isInit
        }
    }

    Rectangle {
        id: disturbanceView
        anchors.fill: parent
        visible: false
        z: 10
        color: "#e6ffffff"
        Column {
            anchors.centerIn: parent
            spacing: 40 * root.rRatio
            Text {
                text: root.disturbanceFound
                font.family: root.fontfamily
                font.pixelSize: root.normalFontSize * 1.2
                color: "#b00000"
                anchors.horizontalCenter: parent.horizontalCenter
            }
            Row {
                anchors.horizontalCenter: parent.horizontalCenter
                spacing: 40 * root.rRatio
                SimpleButton { id: retryButton; text: root.retryBtnText; bIndex: 5011 }
                SimpleButton { id: cancelButton; text: root.cancelBtnText; bIndex: 5000 }
            }
        }
    }

    Rectangle {
        anchors.fill: parent
        visible: root.isLoading
        z: 20
        color: "white"
        Text {
            anchors.centerIn: parent
            text: root.loadingText
            font.family: root.fontfamily
            font.pixelSize: 30 * root.rRatio
            color: "#202020"
        }
    }

    Rectangle {
        id: marker
        z: 30
        visible: false
        color: "transparent"
        border.color: root.markerColor
        border.width: 3
    }
}
