// One line of bits for each row of dots, the leftmost dot in the highest of five bits.
#include "smalldigits.h"

#include <array>

namespace {

constexpr int advance = smalldigits::width + 1;

using Glyph = std::array<quint8, smalldigits::height>;

constexpr std::array<Glyph, 10> digits{{
    {0b01110, 0b10001, 0b10011, 0b10101, 0b11001, 0b10001, 0b01110},
    {0b00100, 0b01100, 0b00100, 0b00100, 0b00100, 0b00100, 0b01110},
    {0b01110, 0b10001, 0b00001, 0b00110, 0b01000, 0b10000, 0b11111},
    {0b01110, 0b10001, 0b00001, 0b00110, 0b00001, 0b10001, 0b01110},
    {0b00010, 0b00110, 0b01010, 0b10010, 0b11111, 0b00010, 0b00010},
    {0b11111, 0b10000, 0b11110, 0b00001, 0b00001, 0b10001, 0b01110},
    {0b00110, 0b01000, 0b10000, 0b11110, 0b10001, 0b10001, 0b01110},
    {0b11111, 0b00001, 0b00010, 0b00100, 0b01000, 0b01000, 0b01000},
    {0b01110, 0b10001, 0b10001, 0b01110, 0b10001, 0b10001, 0b01110},
    {0b01110, 0b10001, 0b10001, 0b01111, 0b00001, 0b00010, 0b01100},
}};
constexpr Glyph colon{0, 0b00100, 0b00100, 0, 0b00100, 0b00100, 0};
constexpr Glyph point{0, 0, 0, 0, 0, 0b00100, 0b00100};

Glyph glyphOf(QChar character)
{
    if (character == QLatin1Char(':'))
        return colon;
    if (character == QLatin1Char('.'))
        return point;
    const int digit = character.unicode() - u'0';
    return digit >= 0 && digit < int(digits.size()) ? digits[std::size_t(digit)] : Glyph{};
}

}

int smalldigits::textWidth(const QString& text)
{
    return text.isEmpty() ? 0 : int(text.size()) * advance - 1;
}

void smalldigits::draw(QPainter& painter, QPoint topLeft, int dotSize, const QColor& colour, const QString& text)
{
    for (int i = 0; i < text.size(); ++i) {
        const Glyph glyph = glyphOf(text[i]);
        for (int row = 0; row < height; ++row) {
            for (int column = 0; column < width; ++column) {
                if (((glyph[std::size_t(row)] >> (width - 1 - column)) & 1) == 0)
                    continue;
                const QPoint dot(i * advance + column, row);
                painter.fillRect(QRect(topLeft + dot * dotSize, QSize(dotSize, dotSize)), colour);
            }
        }
    }
}
