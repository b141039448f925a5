#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QStringView>

#include <optional>

namespace Json {
class Writer;
}

// The line-based Markdown block parser and its memo cache: a reply's text cut into a flat list of
// headings, paragraphs, list items, quotes, fenced code and tables. Inline markup is left in the
// blocks' texts for InlineMarkdown. Parsing never fails: malformed input degrades to paragraphs,
// and an unterminated fence runs to the end of the text.
//
// MarkdownText holds only static operations and the block type; the widget that draws the blocks
// lives in the user interface as MarkdownTextView and asks cachedParse() for them.
class MarkdownText final
{
public:
    // One block. Only the fields of its kind are meaningful; the others keep their defaults, so
    // equality is "same kind and equal payload".
    struct Block
    {
        enum class Kind { Heading, Paragraph, Bullet, Ordered, Quote, Code, Table };

        Kind kind = Kind::Paragraph;
        qint64 level = 0;                // Heading: the number of '#' marks, 1 to 6
        qint64 number = 0;               // Ordered: the item's own number as written (1 when unreadable)
        QString text;                    // Heading, Paragraph, Bullet, Ordered, Quote
        QString code;                    // Code: the lines between the fences, joined with line feeds
        std::optional<QString> language; // Code: the fence's tag, absent when blank
        QStringList headers;             // Table
        QList<QStringList> rows;         // Table: rows may have more or fewer cells than headers

        static Block heading(qint64 level, QString text);
        static Block paragraph(QString text);
        static Block bullet(QString text);
        static Block ordered(qint64 number, QString text);
        static Block quote(QString text);
        static Block codeBlock(QString code, std::optional<QString> language);
        static Block table(QStringList headers, QList<QStringList> rows);

        friend bool operator==(const Block &, const Block &) = default;
    };

    MarkdownText() = delete;

    // Where the parse of a text that only grows at its end can start again: the start of a line
    // at which the parse stands between blocks, with that line and every one before it complete
    // (ended by a line feed), so nothing appended can change the blocks before it; and how many
    // blocks come before it. Parsing the text from offset gives the blocks after those.
    struct ResumePoint
    {
        qsizetype offset = 0;
        qsizetype blocks = 0;
    };

    // Pure; safe on any thread.
    static QList<Block> parse(QStringView text);
    // The same, also setting resume to the last place a longer text starting with this one can be
    // parsed again from.
    static QList<Block> parse(QStringView text, ResumePoint *resume);
    // The same result as parse(), through the process-wide cache keyed by the whole text.
    // Main thread only.
    static QList<Block> cachedParse(const QString &text);
    // One table row cut at every '|' into trimmed cells; outer pipes dropped, no escaping.
    static QStringList splitRow(QStringView line);
    // Whether an already trimmed line is a table's delimiter row ("|---|:-:|", "---|---", "- - -").
    static bool isTableSeparator(QStringView line);

    // The cache, for tests and benchmarks.
    static qsizetype cacheSize();
    static qsizetype cacheBytes();
    static void clearCache();
};

// The block's JSON form, as verbolt-inspect prints it:
// {"type":"heading","level":1,"text":…}, {"type":"code","code":…,"language":…|null}, …
void toJson(Json::Writer &writer, const MarkdownText::Block &block);
