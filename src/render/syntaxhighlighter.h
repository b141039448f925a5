#pragma once

#include <QList>
#include <QRegularExpression>
#include <QString>
#include <QStringView>

#include <optional>

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
    // One pass: every non-overlapping match of pattern within [rangeStart, rangeStart +
    // rangeLength) of text sets colors over its range to color. A pattern that is not valid does
    // nothing. colors holds one entry per UTF-16 unit of text.
    static void apply(const QRegularExpression &pattern, CodeColor color, QStringView text, QList<CodeColor> &colors,
                      qsizetype rangeStart, qsizetype rangeLength);

    // The cache, for tests and benchmarks.
    static qsizetype cacheSize();
    static qsizetype cacheBytes();
    static void clearCache();
};
