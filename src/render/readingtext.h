#pragma once

#include "render/markdowntext.h"

#include <QList>
#include <QString>
#include <QStringView>

#include <optional>

// How a Markdown text reads to someone who hears it instead of seeing it: the words each block
// shows, in reading order, without the markup that the views turn into styling. A bullet reads
// with its "•", a numbered item with its "3.", a link as its text (its target is told apart, as
// the link's own description), a table row as its shown cells only, a code block as its label
// and its code. Screen-reader interfaces and reply announcements both read through here, so
// what is heard is what the views show. Core only; pure; safe on any thread.
namespace ReadingText {

// A link inside a block's shown text.
struct Link
{
    qsizetype start = 0;
    qsizetype length = 0;
    QString target;
    friend bool operator==(const Link &, const Link &) = default;
};

// One block's inline Markdown as shown: the text with line breaks kept, and its links.
struct Inline
{
    QString text;
    QList<Link> links;
};
Inline inlineText(QStringView source);

// The code block's label as shown in its header: the language as written, or "code".
QString codeLabel(const std::optional<QString> &language);
// What a code block is called when read: "Code, python" or "Code".
QString codeName(const std::optional<QString> &language);
// The body rows of a table as shown: exactly one cell per header, missing cells empty.
QList<QStringList> shownRows(const MarkdownText::Block &table);

// The block's shown text. Text blocks read with their bullet or number ("• item", "3. step");
// a code block reads as its name on one line and then its code; a table as one line per row,
// header row first, shown cells separated by tabs, each cell's inline markup rendered.
QString blockText(const MarkdownText::Block &block);

// The block as one spoken stretch: like blockText(), except that code and tables, which are
// read by moving through them, are only named ("Code, python, 12 lines.",
// "Table, 3 columns, 4 rows.").
QString spokenBlock(const MarkdownText::Block &block);

// The whole text as shown, blocks one per line. At most about limit characters of the source
// are read, so a huge reply costs what is read, not what it holds; a cut text ends with "…".
QString markdownText(const QString &markdown, qsizetype limit);

// Words of a shown text: runs of characters that are not white space.
qsizetype wordCount(QStringView text);

} // namespace ReadingText
