import QtQuick

Rectangle {
    width: 1920
    height: 1080
    color: "white"
    Text {
        anchors.centerIn: parent
        text: "LOADING..."
        font.family: "Helvetica"
        font.pixelSize: parent.width / 40
        color: "#202020"
    }
}
