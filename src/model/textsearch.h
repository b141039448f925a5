#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QStringView>

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

    // Where any word occurs in the folded text, in order, overlapping hits merged.
    QList<Range> hits(QStringView foldedText) const;
    // Whether every word occurs somewhere in the folded text.
    bool matchesAll(QStringView foldedText) const;

private:
    QStringList m_words;
};

} // namespace TextSearch
