import QtQuick

Rectangle {
    width: 1920
    height: 1080
    color: "black"
    Text {
        anchors.centerIn: parent
        text: "Standby"
        font.family: "Helvetica"
        font.pixelSize: parent.width / 40
        color: "#808080"
    }
}
