#pragma once

#include <QByteArrayView>
#include <QStringView>

// Trims of the "horizontal whitespace" set: space, tab and the Unicode space separators (Zs).
// Line feeds and carriage returns are kept. Stream lines and Markdown lines share this rule.
bool isHorizontalSpace(char32_t c);
QStringView trimHorizontal(QStringView text);
// The same trim on UTF-8 bytes; invalid sequences are never trimmed.
QByteArrayView trimHorizontalUtf8(QByteArrayView utf8);
