#pragma once

#include <QChar>
#include <QStringView>

// Code points and white space as the Markdown readers see them, shared by the block parser and
// the inline renderer so that both read a reply's characters alike.
namespace UnicodeText {

// The code point that starts at i of UTF-16 text; a lone surrogate stands for itself. width, when
// given, receives the number of UTF-16 units it takes (1 or 2).
inline char32_t codePointAt(QStringView s, qsizetype i, qsizetype *width = nullptr)
{
    const QChar c = s[i];
    const bool pair = c.isHighSurrogate() && i + 1 < s.size() && s[i + 1].isLowSurrogate();
    if (width)
        *width = pair ? 2 : 1;
    return pair ? QChar::surrogateToUcs4(c, s[i + 1]) : char32_t(c.unicode());
}

// The code point that ends just before i (i > 0).
inline char32_t codePointBefore(QStringView s, qsizetype i)
{
    const QChar c = s[i - 1];
    if (c.isLowSurrogate() && i >= 2 && s[i - 2].isHighSurrogate())
        return QChar::surrogateToUcs4(s[i - 2], c);
    return c.unicode();
}

// Markdown's Unicode white space: tab, line feed, form feed, carriage return and the space
// separators (Zs).
inline bool isWhitespace(char32_t c)
{
    if (c == U'\t' || c == U'\n' || c == U'\f' || c == U'\r' || c == U' ')
        return true;
    return c >= 0x80 && QChar::category(c) == QChar::Separator_Space;
}

// The \s class of the line patterns: Markdown's white space plus the line and paragraph
// separators (Zl, Zp).
inline bool isPatternSpace(char32_t c)
{
    if (isWhitespace(c))
        return true;
    if (c < 0x80)
        return false;
    const QChar::Category category = QChar::category(c);
    return category == QChar::Separator_Line || category == QChar::Separator_Paragraph;
}

} // namespace UnicodeText
