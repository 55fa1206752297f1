import QtQuick

// The device works as a USB device of the connected computer.
Rectangle {
    width: 1920
    height: 1080
    color: "black"
    Text {
        anchors.centerIn: parent
        text: "Connected to the computer over USB"
        font.family: "Helvetica"
        font.pixelSize: parent.width / 40
        color: "white"
    }
}
