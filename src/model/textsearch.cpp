#include "model/textsearch.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace TextSearch {
namespace {

char16_t computeFold(char16_t unit)
{
    if (QChar::isSurrogate(unit))
        return unit;
    QChar c(unit);
    // Follow single-letter decompositions down to the base letter: "é" is "e" plus a combining
    // accent, "Ａ" the wide form of "A". A decomposition into several letters ("ﬁ") keeps the
    // letter as it is, so that folding never changes the length of a text.
    for (int depth = 0; depth < 4 && c.decompositionTag() != QChar::NoDecomposition; ++depth) {
        const QString parts = c.decomposition();
        if (parts.isEmpty() || QChar::isSurrogate(parts.at(0).unicode()))
            break;
        const bool canonical = c.decompositionTag() == QChar::Canonical;
        const bool singleBase = parts.size() == 1 || std::all_of(parts.begin() + 1, parts.end(), [](QChar m) {
                                    return m.category() == QChar::Mark_NonSpacing;
                                });
        const bool width = c.decompositionTag() == QChar::Wide || c.decompositionTag() == QChar::Narrow ||
                           c.decompositionTag() == QChar::Font || c.decompositionTag() == QChar::Compat;
        if (!singleBase || !(canonical || (width && parts.size() == 1)))
            break;
        c = parts.at(0);
    }
    return c.toCaseFolded().unicode();
}

const std::array<char16_t, 65536> &foldTable()
{
    static const std::unique_ptr<std::array<char16_t, 65536>> table = [] {
        auto t = std::make_unique<std::array<char16_t, 65536>>();
        for (int i = 0; i < 65536; ++i)
            (*t)[i] = computeFold(char16_t(i));
        return t;
    }();
    return *table;
}

} // namespace

char16_t foldUnit(char16_t unit)
{
    return foldTable()[unit];
}

void foldInto(QStringView text, QString &out)
{
    const std::array<char16_t, 65536> &table = foldTable();
    out.resize(text.size());
    char16_t *to = reinterpret_cast<char16_t *>(out.data());
    const char16_t *from = text.utf16();
    for (qsizetype i = 0, n = text.size(); i < n; ++i)
        to[i] = table[from[i]];
}

QString folded(QStringView text)
{
    QString out;
    foldInto(text, out);
    return out;
}

Query::Query(QStringView typed)
{
    QStringList words;
    qsizetype start = -1;
    for (qsizetype i = 0; i <= typed.size(); ++i) {
        const bool space = i == typed.size() || typed.at(i).isSpace();
        if (!space && start < 0) {
            start = i;
        } else if (space && start >= 0) {
            words.append(folded(typed.mid(start, i - start)));
            start = -1;
        }
    }
    // Longest first: a shorter word inside a longer one adds nothing to what must match.
    std::stable_sort(words.begin(), words.end(),
                     [](const QString &a, const QString &b) { return a.size() > b.size(); });
    for (const QString &word : std::as_const(words)) {
        if (std::none_of(m_words.cbegin(), m_words.cend(), [&](const QString &kept) { return kept.contains(word); }))
            m_words.append(word);
    }
}

qsizetype Query::findSome(QStringView text, QStringView word, qsizetype &from, qsizetype *places, qsizetype room)
{
    // Eight places at a time are tested for the word's first and last units at once, and only
    // where both match is the rest compared. Even a common pair ("t…t") leaves few places to
    // compare.
    const qsizetype m = word.size();
    const qsizetype n = text.size();
    qsizetype count = 0;
    if (m == 0 || from < 0 || room <= 0) {
        from = n;
        return 0;
    }
    const char16_t *p = text.utf16();
    const char16_t *w = word.utf16();
    const char16_t first = w[0];
    const char16_t last = w[m - 1];
    const auto restMatches = [&](qsizetype at) {
        return m <= 2 || std::memcmp(p + at + 1, w + 1, std::size_t(m - 2) * sizeof(char16_t)) == 0;
    };
    // No place starts before next: the last place found runs up to it.
    qsizetype next = from;
    qsizetype i = from;
#if defined(__SSE2__)
    const __m128i firsts = _mm_set1_epi16(short(first));
    const __m128i lasts = _mm_set1_epi16(short(last));
    // Two mask bits for each unit; those of units before next are dropped.
    const auto from_next = [&](unsigned mask) { return next - i >= 8 ? 0u : mask & (~0u << (2 * (next - i))); };
    for (; i + m - 1 + 8 <= n; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i + m - 1));
        unsigned mask =
            unsigned(_mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi16(a, firsts), _mm_cmpeq_epi16(b, lasts))));
        if (next > i)
            mask = from_next(mask);
        while (mask) {
            const int bit = __builtin_ctz(mask);
            const qsizetype at = i + bit / 2;
            if (!restMatches(at)) {
                mask &= ~(3u << bit);
                continue;
            }
            places[count++] = at;
            next = at + m;
            if (count == room) {
                from = next;
                return count;
            }
            mask = from_next(mask);
        }
    }
#endif
    for (i = std::max(i, next); i + m <= n; ++i) {
        if (p[i] == first && p[i + m - 1] == last && restMatches(i)) {
            places[count++] = i;
            if (count == room) {
                from = i + m;
                return count;
            }
            i += m - 1;
        }
    }
    from = n;
    return count;
}

QList<Range> Query::hits(QStringView foldedText) const
{
    QList<Range> merged;
    if (m_words.size() == 1) {
        forEachHit(foldedText, [&](const Range &range) { merged.append(range); });
        return merged;
    }
    QList<Range> found;
    for (const QString &word : m_words)
        forEachPlace(foldedText, word, [&](qsizetype at) { found.append({at, word.size()}); });
    std::sort(found.begin(), found.end(), [](const Range &a, const Range &b) { return a.start < b.start; });
    for (const Range &r : std::as_const(found)) {
        if (!merged.isEmpty() && r.start <= merged.last().start + merged.last().length) {
            Range &last = merged.last();
            last.length = std::max(last.start + last.length, r.start + r.length) - last.start;
        } else {
            merged.append(r);
        }
    }
    return merged;
}

bool Query::matchesAll(QStringView foldedText) const
{
    return !m_words.isEmpty() && std::all_of(m_words.cbegin(), m_words.cend(),
                                             [&](const QString &word) { return foldedText.contains(word); });
}

} // namespace TextSearch
