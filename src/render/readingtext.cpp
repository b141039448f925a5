#include "render/readingtext.h"

#include "render/inlinemarkdown.h"
#include "render/unicodetext.h"

using namespace Qt::StringLiterals;

namespace ReadingText {

namespace {

using Kind = MarkdownText::Block::Kind;

QString counted(qsizetype n, const QString &one, const QString &many)
{
    return QString::number(n) + u' ' + (n == 1 ? one : many);
}

QString plain(const QString &source)
{
    return inlineText(source).text;
}

} // namespace

Inline inlineText(QStringView source)
{
    Inline result;
    const QList<InlineRun> runs = InlineMarkdown::render(source);
    for (const InlineRun &run : runs) {
        if (run.link) {
            // Neighbouring runs of one link differ only in emphasis: they are one link to hear.
            Link *last = result.links.isEmpty() ? nullptr : &result.links.last();
            if (last && last->target == *run.link && last->start + last->length == result.text.size())
                last->length += run.text.size();
            else
                result.links.append({result.text.size(), run.text.size(), *run.link});
        }
        result.text += run.text;
    }
    return result;
}

QString codeLabel(const std::optional<QString> &language)
{
    return language ? *language : u"code"_s;
}

QString codeName(const std::optional<QString> &language)
{
    return language ? u"Code, "_s + *language : u"Code"_s;
}

QList<QStringList> shownRows(const MarkdownText::Block &table)
{
    const qsizetype columns = table.headers.size();
    QList<QStringList> rows;
    rows.reserve(table.rows.size());
    for (const QStringList &row : table.rows) {
        QStringList shown = row.mid(0, columns);
        while (shown.size() < columns)
            shown.append(QString());
        rows.append(shown);
    }
    return rows;
}

QString blockText(const MarkdownText::Block &block)
{
    switch (block.kind) {
    case Kind::Bullet:
        return QString(QChar(0x2022)) + u' ' + plain(block.text);
    case Kind::Ordered:
        return QString::number(block.number) + u". "_s + plain(block.text);
    case Kind::Heading:
    case Kind::Paragraph:
    case Kind::Quote:
        return plain(block.text);
    case Kind::Code:
        return codeName(block.language) + u'\n' + block.code;
    case Kind::Table:
        break;
    }
    QStringList lines;
    QStringList header;
    for (const QString &cell : block.headers)
        header.append(plain(cell));
    lines.append(header.join(u'\t'));
    for (const QStringList &row : shownRows(block)) {
        QStringList cells;
        for (const QString &cell : row)
            cells.append(plain(cell));
        lines.append(cells.join(u'\t'));
    }
    return lines.join(u'\n');
}

QString spokenBlock(const MarkdownText::Block &block)
{
    if (block.kind == Kind::Code) {
        const qsizetype lines = block.code.isEmpty() ? 0 : block.code.count(u'\n') + 1;
        return codeName(block.language) + u", "_s + counted(lines, u"line"_s, u"lines"_s) + u'.';
    }
    if (block.kind == Kind::Table) {
        return u"Table, "_s + counted(block.headers.size(), u"column"_s, u"columns"_s) + u", "_s +
               counted(block.rows.size(), u"row"_s, u"rows"_s) + u'.';
    }
    return blockText(block);
}

QString markdownText(const QString &markdown, qsizetype limit)
{
    QStringView source(markdown);
    bool cut = false;
    if (source.size() > limit) {
        // Cut at a line's end, so no block is read from half its line.
        const qsizetype lineEnd = source.first(limit).lastIndexOf(u'\n');
        source = source.first(lineEnd > 0 ? lineEnd : limit);
        cut = true;
    }
    QString text;
    const QList<MarkdownText::Block> blocks = MarkdownText::parse(source);
    for (const MarkdownText::Block &block : blocks) {
        if (!text.isEmpty())
            text += u'\n';
        text += blockText(block);
        if (text.size() >= limit) {
            cut = cut || text.size() > limit;
            text.truncate(limit);
            break;
        }
    }
    if (cut)
        text += QChar(0x2026);
    return text;
}

qsizetype wordCount(QStringView text)
{
    qsizetype words = 0;
    bool inWord = false;
    for (qsizetype i = 0; i < text.size();) {
        qsizetype width = 1;
        const char32_t c = UnicodeText::codePointAt(text, i, &width);
        const bool space = UnicodeText::isPatternSpace(c);
        if (!space && !inWord)
            ++words;
        inWord = !space;
        i += width;
    }
    return words;
}

} // namespace ReadingText
