#include "StatusIcon.h"

#include <QPainter>
#include <QPixmap>

#include <algorithm>

namespace StatusIcon {

namespace {

QColor colourOf(Tint tint)
{
    switch (tint) {
    case Tint::red: return QColor(0xFF, 0x3B, 0x30);
    case Tint::orange: return QColor(0xFF, 0x95, 0x00);
    case Tint::normal: break;
    }
    return QColor(0xE8, 0xE8, 0xE8);
}

QPixmap waveform(int size, const QColor& colour)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    // Each bar has a dark rim around its light body, so the glyph stands out on a dark panel by its
    // body and on a light panel by its rim.
    const double rim = std::max(1.0, size / 22.0);
    painter.setPen(QPen(QColor(0x20, 0x20, 0x20, 0xE6), rim));
    painter.setBrush(colour);
    // Five bars of a symmetric waveform, tallest in the middle: few enough that each stays wide
    // enough for its light body to show inside the rim at 16-22 pixels.
    static constexpr double heights[] = {0.35, 0.7, 1.0, 0.7, 0.35};
    const double slot = (size - rim) / 5.0;
    const double barWidth = slot * 0.75;
    for (int i = 0; i < 5; ++i) {
        const double height = (size - 2 * rim) * 0.9 * heights[i];
        painter.drawRoundedRect(
            QRectF(rim / 2 + i * slot + (slot - barWidth) / 2, (size - height) / 2, barWidth, height), barWidth / 2, barWidth / 2);
    }
    return pixmap;
}

}

QIcon make(Tint tint)
{
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64})
        icon.addPixmap(waveform(size, colourOf(tint)));
    return icon;
}

}
