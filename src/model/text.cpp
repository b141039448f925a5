#include "model/text.h"

#include <QChar>

bool isHorizontalSpace(char32_t c)
{
    if (c == U' ' || c == U'\t')
        return true;
    if (c < 0x80)
        return false;
    return QChar::category(c) == QChar::Separator_Space;
}

QStringView trimHorizontal(QStringView text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    // No code point in Zs lies outside the Basic Multilingual Plane, so UTF-16 units suffice.
    while (begin < end && isHorizontalSpace(text[begin].unicode()))
        ++begin;
    while (end > begin && isHorizontalSpace(text[end - 1].unicode()))
        --end;
    return text.sliced(begin, end - begin);
}

namespace {

// Length in bytes of the horizontal space that starts at p (0 when there is none).
// The multi-byte members of Zs: U+00A0, U+1680, U+2000..U+200A, U+202F, U+205F, U+3000.
qsizetype spaceAt(const unsigned char *p, qsizetype n)
{
    if (n >= 1 && (p[0] == ' ' || p[0] == '\t'))
        return 1;
    if (n >= 2 && p[0] == 0xC2 && p[1] == 0xA0)
        return 2;
    if (n >= 3) {
        if (p[0] == 0xE1 && p[1] == 0x9A && p[2] == 0x80)
            return 3;
        if (p[0] == 0xE2 && p[1] == 0x80 && ((p[2] >= 0x80 && p[2] <= 0x8A) || p[2] == 0xAF))
            return 3;
        if (p[0] == 0xE2 && p[1] == 0x81 && p[2] == 0x9F)
            return 3;
        if (p[0] == 0xE3 && p[1] == 0x80 && p[2] == 0x80)
            return 3;
    }
    return 0;
}

// Length of the horizontal space that ends just before p + n.
qsizetype spaceBefore(const unsigned char *p, qsizetype n)
{
    if (n >= 1 && (p[n - 1] == ' ' || p[n - 1] == '\t'))
        return 1;
    if (n >= 2 && spaceAt(p + n - 2, 2) == 2)
        return 2;
    if (n >= 3 && spaceAt(p + n - 3, 3) == 3)
        return 3;
    return 0;
}

} // namespace

QByteArrayView trimHorizontalUtf8(QByteArrayView utf8)
{
    const auto *p = reinterpret_cast<const unsigned char *>(utf8.data());
    qsizetype begin = 0;
    qsizetype end = utf8.size();
    while (begin < end) {
        const qsizetype n = spaceAt(p + begin, end - begin);
        if (n == 0)
            break;
        begin += n;
    }
    while (end > begin) {
        const qsizetype n = spaceBefore(p + begin, end - begin);
        if (n == 0)
            break;
        end -= n;
    }
    return utf8.sliced(begin, end - begin);
}
