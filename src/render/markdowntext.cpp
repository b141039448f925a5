#include "render/markdowntext.h"

#include "model/json.h"
#include "model/text.h"
#include "render/memocache.h"
#include "render/unicodetext.h"

#include <QChar>

namespace {

MemoCache<QList<MarkdownText::Block>> &parseCache()
{
    static MemoCache<QList<MarkdownText::Block>> cache;
    return cache;
}

// The line patterns use the regular-expression classes of the reply's dialect: \s is
// [\t\n\f\r\p{Z}] and \d is any decimal digit (Nd), beyond the BMP included. They are matched by
// hand because every line of every reply goes through them on each redraw of a streaming reply.
using UnicodeText::isPatternSpace;

// Length of the \s+ run at i (0 when there is none). Every member of the class is in the BMP.
qsizetype spaceRun(QStringView s, qsizetype i)
{
    qsizetype end = i;
    while (end < s.size() && isPatternSpace(s[end].unicode()))
        ++end;
    return end - i;
}

// "^#{1,6}\s+": the prefix length and the level, or 0.
qsizetype headingPrefix(QStringView line, qint64 *level)
{
    qsizetype hashes = 0;
    while (hashes < line.size() && line[hashes] == u'#')
        ++hashes;
    if (hashes == 0 || hashes > 6)
        return 0;
    const qsizetype spaces = spaceRun(line, hashes);
    if (spaces == 0)
        return 0;
    *level = hashes;
    return hashes + spaces;
}

// "^[-*+]\s+"
qsizetype bulletPrefix(QStringView line)
{
    if (line.isEmpty() || (line[0] != u'-' && line[0] != u'*' && line[0] != u'+'))
        return 0;
    const qsizetype spaces = spaceRun(line, 1);
    return spaces == 0 ? 0 : 1 + spaces;
}

// "^\d+\.\s+": the prefix length and the item number, or 0.
qsizetype orderedPrefix(QStringView line, qint64 *number)
{
    qsizetype i = 0;
    bool asciiOnly = true;
    while (i < line.size()) {
        qsizetype width = 1;
        const char32_t c = UnicodeText::codePointAt(line, i, &width);
        if (!QChar::isDigit(c))
            break;
        asciiOnly = asciiOnly && c < 0x80;
        i += width;
    }
    if (i == 0 || i >= line.size() || line[i] != u'.')
        return 0;
    const qsizetype spaces = spaceRun(line, i + 1);
    if (spaces == 0)
        return 0;

    // A number that does not read as a 64-bit integer (overflow, a digit from another script)
    // becomes 1 rather than dropping the item.
    bool ok = false;
    const qint64 value = asciiOnly ? line.first(i).toLongLong(&ok) : 0;
    *number = ok ? value : 1;
    return i + 1 + spaces;
}

bool startsWithFence(QStringView trimmed)
{
    return trimmed.startsWith(u"```");
}

} // namespace

MarkdownText::Block MarkdownText::Block::heading(qint64 level, QString text)
{
    Block b;
    b.kind = Kind::Heading;
    b.level = level;
    b.text = std::move(text);
    return b;
}

MarkdownText::Block MarkdownText::Block::paragraph(QString text)
{
    Block b;
    b.kind = Kind::Paragraph;
    b.text = std::move(text);
    return b;
}

MarkdownText::Block MarkdownText::Block::bullet(QString text)
{
    Block b;
    b.kind = Kind::Bullet;
    b.text = std::move(text);
    return b;
}

MarkdownText::Block MarkdownText::Block::ordered(qint64 number, QString text)
{
    Block b;
    b.kind = Kind::Ordered;
    b.number = number;
    b.text = std::move(text);
    return b;
}

MarkdownText::Block MarkdownText::Block::quote(QString text)
{
    Block b;
    b.kind = Kind::Quote;
    b.text = std::move(text);
    return b;
}

MarkdownText::Block MarkdownText::Block::codeBlock(QString code, std::optional<QString> language)
{
    Block b;
    b.kind = Kind::Code;
    b.code = std::move(code);
    b.language = std::move(language);
    return b;
}

MarkdownText::Block MarkdownText::Block::table(QStringList headers, QList<QStringList> rows)
{
    Block b;
    b.kind = Kind::Table;
    b.headers = std::move(headers);
    b.rows = std::move(rows);
    return b;
}

QList<MarkdownText::Block> MarkdownText::parse(QStringView text)
{
    return parse(text, nullptr);
}

QList<MarkdownText::Block> MarkdownText::parse(QStringView text, ResumePoint *resume)
{
    QList<QStringView> lines;
    for (qsizetype start = 0;;) {
        const qsizetype end = text.indexOf(u'\n', start);
        if (end < 0) {
            lines.append(text.sliced(start));
            break;
        }
        lines.append(text.sliced(start, end - start));
        start = end + 1;
    }
    if (resume)
        *resume = {};

    QList<Block> blocks;
    QList<QStringView> pending;
    const auto flushParagraph = [&] {
        if (pending.isEmpty())
            return;
        QString joined;
        qsizetype size = pending.size() - 1;
        for (const QStringView line : std::as_const(pending))
            size += line.size();
        joined.reserve(size);
        for (qsizetype k = 0; k < pending.size(); ++k) {
            if (k > 0)
                joined.append(u'\n');
            joined.append(pending[k]);
        }
        blocks.append(Block::paragraph(std::move(joined)));
        pending.clear();
    };

    const qsizetype count = lines.size();
    qsizetype i = 0;
    while (i < count) {
        // A line is read together with the one after it (a table's delimiter row) and a table ends
        // at the first line without a pipe, so only a complete line, before the last one, can be
        // where nothing appended reaches back.
        if (resume && pending.isEmpty() && i + 1 < count)
            *resume = {lines[i].data() - text.data(), blocks.size()};
        const QStringView trimmed = trimHorizontal(lines[i]);

        if (startsWithFence(trimmed)) {
            flushParagraph();
            const QStringView tag = trimHorizontal(trimmed.sliced(3));
            std::optional<QString> language;
            if (!tag.isEmpty())
                language = tag.toString();
            QString code;
            qsizetype j = i + 1;
            for (; j < count; ++j) {
                if (startsWithFence(trimHorizontal(lines[j])))
                    break;
                if (j > i + 1)
                    code.append(u'\n');
                code.append(lines[j]);
            }
            blocks.append(Block::codeBlock(std::move(code), std::move(language)));
            i = j + 1;
            continue;
        }

        if (trimmed.contains(u'|') && i + 1 < count && isTableSeparator(trimHorizontal(lines[i + 1]))) {
            flushParagraph();
            QStringList headers = splitRow(trimmed);
            QList<QStringList> rows;
            qsizetype j = i + 2;
            for (; j < count; ++j) {
                const QStringView row = trimHorizontal(lines[j]);
                if (!row.contains(u'|'))
                    break;
                rows.append(splitRow(row));
            }
            blocks.append(Block::table(std::move(headers), std::move(rows)));
            i = j;
            continue;
        }

        if (trimmed.isEmpty()) {
            flushParagraph();
            ++i;
            continue;
        }

        qint64 level = 0;
        if (const qsizetype prefix = headingPrefix(trimmed, &level)) {
            flushParagraph();
            blocks.append(Block::heading(level, trimmed.sliced(prefix).toString()));
            ++i;
            continue;
        }

        if (trimmed.startsWith(u'>')) {
            flushParagraph();
            qsizetype k = 0;
            while (k < trimmed.size() && (trimmed[k] == u'>' || trimmed[k] == u' '))
                ++k;
            blocks.append(Block::quote(trimmed.sliced(k).toString()));
            ++i;
            continue;
        }

        if (const qsizetype prefix = bulletPrefix(trimmed)) {
            flushParagraph();
            blocks.append(Block::bullet(trimmed.sliced(prefix).toString()));
            ++i;
            continue;
        }

        qint64 number = 0;
        if (const qsizetype prefix = orderedPrefix(trimmed, &number)) {
            flushParagraph();
            blocks.append(Block::ordered(number, trimmed.sliced(prefix).toString()));
            ++i;
            continue;
        }

        pending.append(lines[i]);
        ++i;
    }
    flushParagraph();
    return blocks;
}

namespace {

qsizetype bytesOf(const QString &text)
{
    return text.size() * qsizetype(sizeof(QChar));
}

// What a parse result holds in memory, near enough for the cache's budget.
qsizetype footprint(const QList<MarkdownText::Block> &blocks)
{
    qsizetype bytes = blocks.size() * qsizetype(sizeof(MarkdownText::Block));
    for (const MarkdownText::Block &block : blocks) {
        bytes += bytesOf(block.text) + bytesOf(block.code) + bytesOf(block.language.value_or(QString()));
        for (const QString &cell : block.headers)
            bytes += bytesOf(cell) + qsizetype(sizeof(QString));
        for (const QStringList &row : block.rows) {
            for (const QString &cell : row)
                bytes += bytesOf(cell) + qsizetype(sizeof(QString));
        }
    }
    return bytes;
}

} // namespace

QList<MarkdownText::Block> MarkdownText::cachedParse(const QString &text)
{
    MemoCache<QList<Block>> &cache = parseCache();
    if (const QList<Block> *hit = cache.find(text))
        return *hit;
    QList<Block> blocks = parse(text);
    const qsizetype bytes = footprint(blocks);
    return cache.store(text, std::move(blocks), bytes);
}

QStringList MarkdownText::splitRow(QStringView line)
{
    QStringView rest = trimHorizontal(line);
    if (rest.startsWith(u'|'))
        rest = rest.sliced(1);
    if (rest.endsWith(u'|'))
        rest = rest.chopped(1);
    QStringList cells;
    for (qsizetype start = 0;;) {
        const qsizetype end = rest.indexOf(u'|', start);
        const QStringView cell = end < 0 ? rest.sliced(start) : rest.sliced(start, end - start);
        cells.append(trimHorizontal(cell).toString());
        if (end < 0)
            break;
        start = end + 1;
    }
    return cells;
}

bool MarkdownText::isTableSeparator(QStringView line)
{
    if (!line.contains(u'-'))
        return false;
    if (!line.contains(u'|') && !line.startsWith(u'-'))
        return false;
    for (const QChar c : line) {
        if (c != u'|' && c != u'-' && c != u':' && c != u' ')
            return false;
    }
    return true;
}

qsizetype MarkdownText::cacheSize()
{
    return parseCache().size();
}

qsizetype MarkdownText::cacheBytes()
{
    return parseCache().bytes();
}

void MarkdownText::clearCache()
{
    parseCache().clear();
}

void toJson(Json::Writer &w, const MarkdownText::Block &block)
{
    using Kind = MarkdownText::Block::Kind;
    w.beginObject();
    w.key(QLatin1StringView("type"));
    switch (block.kind) {
    case Kind::Heading:
        w.string(QLatin1StringView("heading"));
        w.key(QLatin1StringView("level"));
        w.integer(block.level);
        break;
    case Kind::Paragraph:
        w.string(QLatin1StringView("paragraph"));
        break;
    case Kind::Bullet:
        w.string(QLatin1StringView("bullet"));
        break;
    case Kind::Ordered:
        w.string(QLatin1StringView("ordered"));
        w.key(QLatin1StringView("number"));
        w.integer(block.number);
        break;
    case Kind::Quote:
        w.string(QLatin1StringView("quote"));
        break;
    case Kind::Code:
        w.string(QLatin1StringView("code"));
        w.key(QLatin1StringView("code"));
        w.string(block.code);
        w.key(QLatin1StringView("language"));
        if (block.language)
            w.string(*block.language);
        else
            w.null();
        break;
    case Kind::Table:
        w.string(QLatin1StringView("table"));
        w.key(QLatin1StringView("headers"));
        w.beginArray();
        for (const QString &cell : block.headers)
            w.string(cell);
        w.endArray();
        w.key(QLatin1StringView("rows"));
        w.beginArray();
        for (const QStringList &row : block.rows) {
            w.beginArray();
            for (const QString &cell : row)
                w.string(cell);
            w.endArray();
        }
        w.endArray();
        break;
    }
    if (block.kind != Kind::Code && block.kind != Kind::Table) {
        w.key(QLatin1StringView("text"));
        w.string(block.text);
    }
    w.endObject();
}
