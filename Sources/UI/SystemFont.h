#pragma once

#include <QApplication>
#include <QFont>

// The desktop's font at a size in logical pixels: the unit the windows' own sizes are given in, so
// text keeps its proportion to the window on any screen density.
inline QFont systemFont(int pixelSize, QFont::Weight weight)
{
    QFont font = QApplication::font();
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}
