import QtQuick
import Ravlet.Shell

// A symbol of the program's icon set, by its symbol name.
Text {
    property string name
    property real size: 16

    text: Icons.glyph(name)
    font.family: Icons.family
    font.pixelSize: size
    color: "white"
    horizontalAlignment: Text.AlignHCenter
    verticalAlignment: Text.AlignVCenter
    Accessible.ignored: true
}
