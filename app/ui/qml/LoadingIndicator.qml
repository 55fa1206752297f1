import QtQuick

// A turning ring of dots with the loading text under it.
Item {
    id: indicator
    property real rRatio: 1
    property string text: "LOADING..."
    property string fontfamily: "Helvetica"
    width: 120 * rRatio
    height: width + label.height + 20 * rRatio

    Item {
        id: spinner
        width: indicator.width
        height: width
        Repeater {
            model: 8
            Rectangle {
                width: 16 * indicator.rRatio
                height: width
                radius: width / 2
                color: "#00acea"
                opacity: 0.25 + 0.75 * index / 7
                x: spinner.width / 2 + (spinner.width / 2 - width) * Math.cos(index * Math.PI / 4) - width / 2
                y: spinner.height / 2 + (spinner.height / 2 - width) * Math.sin(index * Math.PI / 4) - height / 2
            }
        }
        RotationAnimation on rotation {
            running: indicator.visible
            from: 0
            to: 360
            duration: 1200
            loops: Animation.Infinite
        }
    }
    Text {
        id: label
        anchors.top: spinner.bottom
        anchors.topMargin: 20 * indicator.rRatio
        anchors.horizontalCenter: spinner.horizontalCenter
        text: indicator.text
        font.family: indicator.fontfamily
        font.pixelSize: 30 * indicator.rRatio
        color: "#202020"
    }
}
