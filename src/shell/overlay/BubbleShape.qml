import QtQuick
import QtQuick.Shapes

// A rounded box with a small arrow on its top edge that points up at the control the bubble
// belongs to. The arrow sits `arrowOffset` in from the trailing edge (the leading one when the
// layout is mirrored), and its sides are soft curves rather than straight lines.
Shape {
    id: bubble

    property real arrowOffset: 20
    property real arrowWidth: 14
    property real arrowHeight: 7
    property real cornerRadius: 8
    property color fillColor: "#2d5bd7"

    // Shapes are not mirrored by the layout; the arrow follows the anchored edge by hand.
    readonly property bool mirrored: LayoutMirroring.enabled
    readonly property real edgeTop: arrowHeight
    readonly property real r: Math.min(cornerRadius, width / 2, (height - edgeTop) / 2)
    readonly property real tipX: mirrored ? arrowOffset : width - arrowOffset
    readonly property real baseLeft: tipX - arrowWidth / 2
    readonly property real baseRight: tipX + arrowWidth / 2

    antialiasing: true

    ShapePath {
        fillColor: bubble.fillColor
        strokeColor: "transparent"
        startX: bubble.r
        startY: bubble.edgeTop

        PathLine { x: bubble.baseLeft; y: bubble.edgeTop }
        PathCubic {
            x: bubble.tipX
            y: 0
            control1X: bubble.baseLeft + bubble.arrowWidth * 0.5 * 0.5
            control1Y: bubble.edgeTop
            control2X: bubble.tipX - bubble.arrowWidth * 0.15 * 0.5
            control2Y: bubble.arrowHeight * 0.15
        }
        PathCubic {
            x: bubble.baseRight
            y: bubble.edgeTop
            control1X: bubble.tipX + bubble.arrowWidth * 0.15 * 0.5
            control1Y: bubble.arrowHeight * 0.15
            control2X: bubble.baseRight - bubble.arrowWidth * 0.5 * 0.5
            control2Y: bubble.edgeTop
        }
        PathLine { x: bubble.width - bubble.r; y: bubble.edgeTop }
        PathArc { x: bubble.width; y: bubble.edgeTop + bubble.r; radiusX: bubble.r; radiusY: bubble.r }
        PathLine { x: bubble.width; y: bubble.height - bubble.r }
        PathArc { x: bubble.width - bubble.r; y: bubble.height; radiusX: bubble.r; radiusY: bubble.r }
        PathLine { x: bubble.r; y: bubble.height }
        PathArc { x: 0; y: bubble.height - bubble.r; radiusX: bubble.r; radiusY: bubble.r }
        PathLine { x: 0; y: bubble.edgeTop + bubble.r }
        PathArc { x: bubble.r; y: bubble.edgeTop; radiusX: bubble.r; radiusY: bubble.r }
    }
}
