import QtQuick

// The point to press: a ring with a red centre (or a label), the press-time bar above it and
// the check mark that replaces the centre once the press was long enough.
Item {
    id: crosshair
    property real rRatio: 1
    property bool isTouch: false
    property string label: ""
    property string iconFont: ""
    property bool timerStarted: false
    property bool dotOk: false
    // Below this the bar would leave the screen, so it goes under the ring.
    property bool nearTop: false

    width: 34 * rRatio
    height: width

    function startTimer() {
        dotOk = false
        stopTimer()
        timerStarted = true
        fill.start()
    }
    function stopTimer() {
        dotOk = false
        timerStarted = false
        fill.stop()
        bar.progress = 0
    }
    function timedout() {
        dotOk = true
    }

    Rectangle {
        id: ring
        anchors.fill: parent
        radius: width / 2
        color: "transparent"
        border.color: "#808080"
        border.width: 5 * crosshair.rRatio
    }
    Rectangle {
        id: centre
        anchors.centerIn: parent
        width: 8 * crosshair.rRatio
        height: width
        radius: width / 2
        // Pure red: nothing else on the screen uses it.
        color: "#ff0000"
        visible: !crosshair.dotOk && crosshair.label === ""
    }
    Text {
        anchors.centerIn: parent
        text: crosshair.label
        visible: crosshair.label !== "" && !crosshair.dotOk
        font.pixelSize: 20 * crosshair.rRatio
        font.bold: true
        color: "#202020"
    }

    Rectangle {
        id: bar
        property real progress: 0
        width: 50 * crosshair.rRatio
        height: 10 * crosshair.rRatio
        anchors.horizontalCenter: parent.horizontalCenter
        y: crosshair.nearTop ? parent.height + 6 * crosshair.rRatio : -height - 6 * crosshair.rRatio
        color: "white"
        border.color: "#808080"
        border.width: 1
        visible: !crosshair.dotOk && crosshair.timerStarted
        Rectangle {
            x: 1
            y: 1
            height: parent.height - 2
            width: (parent.width - 2) * bar.progress
            color: "#00acea"
        }
        // The press times of finger and stylus.
        NumberAnimation {
            id: fill
            target: bar
            property: "progress"
            from: 0
            to: 1
            duration: crosshair.isTouch ? 500 : 200
        }
    }

    Text {
        id: check
        anchors.centerIn: parent
        text: "\uf00c"
        font.family: crosshair.iconFont
        font.pixelSize: 80 * crosshair.rRatio
        color: "#009d05"
        opacity: crosshair.dotOk ? 1 : 0
        Behavior on opacity { NumberAnimation { duration: 180 } }
    }
}
