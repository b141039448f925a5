#pragma once

#include <QList>
#include <QRegularExpression>
#include <QString>
#include <QStringView>

#include <optional>
#include <vector>

struct LanguageProfile;

// The colour roles of highlighted code. The widgets map each role to the palette's light or dark
// colour, so a change of appearance needs no new highlighting.
enum class CodeColor : quint8 { Base, Keyword, Type, Number, String, Comment };

// "base", "keyword", "type", "number", "string" or "comment".
QLatin1StringView codeColorName(CodeColor color);

// A stretch of code in one colour, in UTF-16 units.
struct ColorRun
{
    qsizetype start = 0;
    qsizetype length = 0;
    CodeColor color = CodeColor::Base;

    friend bool operator==(const ColorRun &, const ColorRun &) = default;
};

// Code with its colours: runs in text order that cover every UTF-16 unit of the text exactly
// once, neighbouring runs of one colour merged. An empty text has no runs.
struct StyledCode
{
    QString text;
    QList<ColorRun> runs;

    CodeColor colorAt(qsizetype index) const;
};

// The regular-expression highlighter for fenced code: the language's profile decides which of
// nine fixed passes run; a later pass overwrites the colours of earlier ones. Never fails: an
// unknown or absent language gets the generic profile.
class SyntaxHighlighter final
{
public:
    SyntaxHighlighter() = delete;

    // The code coloured for its fence tag (as written, may be absent), through the process-wide
    // cache keyed by the tag as passed, U+0001 and the code. Main thread only.
    static StyledCode highlighted(const QString &code, const std::optional<QString> &language);
    // The same, uncached; the language is already lower-cased. Safe on any thread.
    static StyledCode build(const QString &code, const std::optional<QString> &language);
    // The cache, for tests and benchmarks.
    static qsizetype cacheSize();
    static qsizetype cacheBytes();
    static void clearCache();
};

// Colours code that grows at its end, as a streamed code block does, with the result build()
// gives for the whole code. Keywords, types, numbers and line comments never span a line, so only
// the last line and what follows it are matched again; strings and block comments keep where
// their scan stopped (inside an opened string, past the last closed one) and go on from there.
// The colours are worked out again only from the first place where any of that differs. Code
// that does not extend the last code given is coloured whole. One instance per thread at a time.
class GrowingHighlighter final
{
public:
    // language as for SyntaxHighlighter::build(): already lower-cased.
    explicit GrowingHighlighter(const std::optional<QString> &language);

    // Colours code and returns it with its runs; valid until the next call.
    const StyledCode &highlight(const QString &code);
    const StyledCode &styled() const { return m_styled; }
    // Where the last line of the code begins: what extending the code matches again at least.
    qsizetype lastLineStart() const { return m_lastLineStart; }

private:
    struct Match
    {
        qsizetype start = 0;
        qsizetype end = 0;
    };
    // Where a scan for strings or block comments stands between two calls.
    struct Scan
    {
        explicit Scan(char16_t q = 0)
            : quote(q)
        {}
        char16_t quote = 0;         // 0 for block comments
        qsizetype searchFrom = 0;   // where the next opener is looked for
        qsizetype open = -1;        // an opener whose end has not come yet
        qsizetype scanAt = 0;       // where the look for that end goes on
        std::vector<Match> matches; // closed ones, in order
    };

    void reset();
    void matchLines(const QString &code, qsizetype from);
    static qsizetype scanQuoted(Scan &scan, QStringView text);
    static qsizetype scanBlockComments(Scan &scan, QStringView text);
    void recolor(qsizetype from);

    const LanguageProfile &m_profile;
    StyledCode m_styled;
    // Per UTF-16 unit, the colour the single-line passes give it: keyword, type or number, with
    // lineCommentBit set where a line comment covers it.
    std::vector<quint8> m_lineColors;
    std::vector<Scan> m_strings;
    Scan m_blockComments;
    qsizetype m_lastLineStart = 0;
};
