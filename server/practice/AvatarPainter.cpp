#include "AvatarPainter.h"

#include <QBuffer>
#include <QColor>
#include <QCryptographicHash>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>
#include <QRandomGenerator>

#include <array>
#include <cstring>

namespace AvatarPainter {

namespace {

QRandomGenerator generatorFor(const QString& seed)
{
    const auto digest = QCryptographicHash::hash(seed.toUtf8(), QCryptographicHash::Sha256);
    std::array<quint32, 8> words{};
    std::memcpy(words.data(), digest.constData(), sizeof(words));
    return QRandomGenerator(words.data(), words.data() + words.size());
}

// Skin-like tones, from light to dark, so every face reads as a face.
QColor skinTone(QRandomGenerator& random)
{
    static const std::array<QColor, 6> tones{QColor(0xf3, 0xd3, 0xbd), QColor(0xe8, 0xb9, 0x96),
                                             QColor(0xd0, 0x9a, 0x70), QColor(0xa8, 0x72, 0x4c),
                                             QColor(0x7d, 0x52, 0x36), QColor(0x5a, 0x3a, 0x26)};
    return tones.at(random.bounded(quint32(tones.size())));
}

} // namespace

QByteArray paintPng(const QString& seed)
{
    auto random = generatorFor(seed);
    const int hue = int(random.bounded(360u));
    const QColor backgroundTop = QColor::fromHsv(hue, 90, 235);
    const QColor backgroundBottom = QColor::fromHsv((hue + 40) % 360, 140, 170);
    const QColor clothes = QColor::fromHsv((hue + 180 + int(random.bounded(60u))) % 360,
                                           120 + int(random.bounded(80u)),
                                           90 + int(random.bounded(80u)));
    const QColor skin = skinTone(random);
    const QColor hair = QColor::fromHsv(int(random.bounded(40u)), 80 + int(random.bounded(120u)),
                                        30 + int(random.bounded(120u)));

    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);

    QLinearGradient background(0, 0, 0, size);
    background.setColorAt(0, backgroundTop);
    background.setColorAt(1, backgroundBottom);
    painter.fillRect(image.rect(), background);

    // Soft shapes behind the figure, like an out-of-focus office.
    painter.setPen(Qt::NoPen);
    const int shapes = 5 + int(random.bounded(5u));
    for (int i = 0; i < shapes; ++i) {
        QColor colour = QColor::fromHsv((hue + int(random.bounded(120u))) % 360, 60, 250);
        colour.setAlpha(40 + int(random.bounded(60u)));
        painter.setBrush(colour);
        const int radius = 30 + int(random.bounded(90u));
        const QPointF centre(random.bounded(double(size)), random.bounded(double(size) * 0.6));
        if (random.bounded(2u) == 0)
            painter.drawEllipse(centre, radius, radius);
        else
            painter.drawRoundedRect(QRectF(centre.x() - radius, centre.y() - radius, radius * 1.6,
                                           radius * 2.2),
                                    12, 12);
    }

    // Shoulders.
    const double shoulderWidth = 330 + random.bounded(70.0);
    QPainterPath body;
    body.moveTo((size - shoulderWidth) / 2, size);
    body.cubicTo((size - shoulderWidth) / 2, 380, size / 2.0 - 90, 350, size / 2.0, 350);
    body.cubicTo(size / 2.0 + 90, 350, (size + shoulderWidth) / 2, 380, (size + shoulderWidth) / 2,
                 size);
    body.closeSubpath();
    painter.setBrush(clothes);
    painter.drawPath(body);

    // Neck and head.
    painter.setBrush(skin.darker(108));
    painter.drawRoundedRect(QRectF(size / 2.0 - 34, 290, 68, 80), 20, 20);
    const double headWidth = 150 + random.bounded(30.0);
    const double headHeight = 180 + random.bounded(30.0);
    const QRectF head(size / 2.0 - headWidth / 2, 130, headWidth, headHeight);
    QRadialGradient shading(head.center() - QPointF(25, 30), headHeight * 0.7);
    shading.setColorAt(0, skin.lighter(108));
    shading.setColorAt(1, skin.darker(112));
    painter.setBrush(shading);
    painter.drawEllipse(head);

    // Hair: a cap over the top of the head that ends above the eyes, of one of three cuts.
    painter.setBrush(hair);
    QPainterPath cap;
    const QRectF capBox = head.adjusted(-10, -14, 10, -headHeight * 0.66);
    switch (random.bounded(3u)) {
    case 0:
        cap.addEllipse(capBox);
        break;
    case 1:
        cap.addRoundedRect(capBox.adjusted(0, 0, 0, 12), 60, 60);
        break;
    default:
        cap.moveTo(capBox.bottomLeft());
        cap.quadTo(capBox.topLeft(), QPointF(capBox.center().x(), capBox.top()));
        cap.quadTo(capBox.topRight(), QPointF(capBox.right(), capBox.bottom() + 40));
        cap.closeSubpath();
        break;
    }
    painter.drawPath(cap);

    // Eyes and a calm mouth, kept simple: the picture is an abstraction, not a person.
    painter.setBrush(QColor(40, 30, 30));
    const double eyeY = head.top() + headHeight * 0.52;
    const double eyeGap = headWidth * (0.18 + random.bounded(0.06));
    painter.drawEllipse(QPointF(size / 2.0 - eyeGap, eyeY), 7, 8);
    painter.drawEllipse(QPointF(size / 2.0 + eyeGap, eyeY), 7, 8);
    QPen mouth(skin.darker(150), 5, Qt::SolidLine, Qt::RoundCap);
    painter.setPen(mouth);
    painter.setBrush(Qt::NoBrush);
    const double mouthY = head.top() + headHeight * 0.75;
    painter.drawArc(QRectF(size / 2.0 - 26, mouthY - 12, 52, 20), -20 * 16, -140 * 16);
    painter.end();

    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

} // namespace AvatarPainter
