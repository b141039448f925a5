#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QStringView>

#include <utility>

// The one rule by which Verbolt finds typed words in text, shared by the search across
// conversations and the find bar of a conversation.
//
// Text is compared folded: case folded and stripped of accents ("Café" reads "cafe", "Ｆｕｌｌ"
// reads "full"), one UTF-16 unit for one, so a position in folded text is the same position in
// the text it came from. Letters that fold to more than one letter keep their own form ("ß"
// stays "ß"). A query is its words, split at white space; each word is found as a substring,
// which is also how words of scripts written without spaces (Chinese, Japanese) are found.
namespace TextSearch {

struct Range
{
    qsizetype start = 0;
    qsizetype length = 0;

    friend bool operator==(const Range &, const Range &) = default;
};

// The folded form of one UTF-16 unit; surrogates are kept as they are.
char16_t foldUnit(char16_t unit);
// The folded text, as long as the text.
QString folded(QStringView text);
// Folds text into out (resized to the text's length), reusing out's storage.
void foldInto(QStringView text, QString &out);

// What the user typed, as folded words. Repeated words and words inside another word of the
// query count once.
class Query
{
public:
    Query() = default;
    explicit Query(QStringView typed);

    bool isEmpty() const { return m_words.isEmpty(); }
    // The folded words, longest first.
    const QStringList &words() const { return m_words; }

    // Where any word occurs in the folded text, in order, overlapping and touching hits merged.
    QList<Range> hits(QStringView foldedText) const;
    // The same hits handed to found(const Range &) one by one, without gathering them first: a
    // find over a long conversation meets tens of thousands of them.
    template<typename Found>
    void forEachHit(QStringView foldedText, Found &&found) const;
    // Whether every word occurs somewhere in the folded text.
    bool matchesAll(QStringView foldedText) const;

private:
    // The places where word occurs in text from `from` on, not overlapping, in order: at most
    // room of them, written to places. Returns how many, and moves from past the last one; fewer
    // than room means the text is done.
    static qsizetype findSome(QStringView text, QStringView word, qsizetype &from, qsizetype *places, qsizetype room);
    // found(qsizetype) for every place where word occurs in text, not overlapping, in order.
    template<typename Found>
    static void forEachPlace(QStringView text, QStringView word, Found &&found);

    QStringList m_words;
};

template<typename Found>
void Query::forEachHit(QStringView foldedText, Found &&found) const
{
    if (m_words.size() != 1) {
        // Several words' hits interleave and overlap: they are sorted and merged first.
        for (const Range &range : hits(foldedText))
            found(range);
        return;
    }
    // One word's hits come in order and never overlap; only touching ones merge.
    const QStringView word = m_words.first();
    Range pending{-1, 0};
    forEachPlace(foldedText, word, [&](qsizetype at) {
        if (pending.start >= 0 && at == pending.start + pending.length) {
            pending.length += word.size();
            return;
        }
        if (pending.start >= 0)
            found(std::as_const(pending));
        pending = {at, word.size()};
    });
    if (pending.start >= 0)
        found(std::as_const(pending));
}

template<typename Found>
void Query::forEachPlace(QStringView text, QStringView word, Found &&found)
{
    // A first letter occurs tens of thousands of times in a long conversation: the places are
    // gathered many at a time, not looked for one call at a time.
    constexpr qsizetype room = 64;
    qsizetype places[room];
    qsizetype from = 0;
    qsizetype count = 0;
    do {
        count = findSome(text, word, from, places, room);
        for (qsizetype k = 0; k < count; ++k)
            found(places[k]);
    } while (count == room);
}

} // namespace TextSearch
