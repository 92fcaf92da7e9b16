// Which characters are shown as they are.
#include "plaintext.h"

QString plainText(const QString& text)
{
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar character = text[i];
        const bool isPair = character.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate();
        const char32_t code = isPair ? QChar::surrogateToUcs4(character, text[i + 1]) : character.unicode();
        const QChar::Category category = QChar::category(code);
        const bool shown = category != QChar::Other_Control && category != QChar::Other_Format
            && category != QChar::Other_Surrogate && category != QChar::Separator_Line
            && category != QChar::Separator_Paragraph;
        if (!shown)
            result += QLatin1Char('?');
        else if (isPair)
            result += text.mid(i, 2);
        else
            result += character;
        i += isPair ? 1 : 0;
    }
    return result;
}
