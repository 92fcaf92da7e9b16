// Digits of our own: Qt's fonts need a window system and fonts that are installed, and a server has neither.
#pragma once

#include <QPainter>
#include <QString>

namespace smalldigits {

inline constexpr int width = 5; // dots of a character
inline constexpr int height = 7;

/// Of one line, in dots.
int textWidth(const QString& text);

/// Digits, ':' and '.', with squares of so many pixels for dots; other characters stay blank.
void draw(QPainter& painter, QPoint topLeft, int dotSize, const QColor& colour, const QString& text);

}
