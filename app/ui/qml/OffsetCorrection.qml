import QtQuick

// A white page while the offset correction clicks its own points.
Rectangle {
    id: oc
    property real rRatio: 1
    property string fontfamily: "Helvetica"
    property string loadingText: "LOADING..."
    property string calibText1: "Windows 8 or greater checking and correcting any offset due to resolution settings"
    color: "white"

    LoadingIndicator {
        id: indicator
        anchors.centerIn: parent
        rRatio: oc.rRatio
        fontfamily: oc.fontfamily
        text: oc.loadingText
    }
    Text {
        anchors.top: indicator.bottom
        anchors.topMargin: 30 * oc.rRatio
        anchors.horizontalCenter: parent.horizontalCenter
        text: oc.calibText1
        font.family: oc.fontfamily
        font.pixelSize: 26 * oc.rRatio
        color: "#202020"
    }
}
