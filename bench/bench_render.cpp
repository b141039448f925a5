// The rendering core on a long reply: the shared 86 KB reply and its first 50 KB, with prose,
// code and tables. What a streaming reply costs per redraw is the last figure: the text grows by
// one chunk, so the block cache misses and every block's inline text is rendered again, while
// unchanged code blocks hit the highlighting cache.
#include "harness.h"
#include "render/inlinemarkdown.h"
#include "render/markdowntext.h"
#include "render/syntaxhighlighter.h"

#include <QFile>

#include <cstdio>

namespace {

using Block = MarkdownText::Block;

qsizetype renderInline(const QList<Block> &blocks)
{
    qsizetype runs = 0;
    for (const Block &block : blocks) {
        switch (block.kind) {
        case Block::Kind::Code:
            break;
        case Block::Kind::Table:
            for (const QString &cell : block.headers)
                runs += InlineMarkdown::render(cell).size();
            for (const QStringList &row : block.rows) {
                for (const QString &cell : row)
                    runs += InlineMarkdown::render(cell).size();
            }
            break;
        default:
            runs += InlineMarkdown::render(block.text).size();
            break;
        }
    }
    return runs;
}

// One redraw as the views do it: blocks from the cache, inline text of each, code highlighted.
qsizetype redraw(const QString &text)
{
    const QList<Block> blocks = MarkdownText::cachedParse(text);
    qsizetype work = renderInline(blocks);
    for (const Block &block : blocks) {
        if (block.kind == Block::Kind::Code)
            work += SyntaxHighlighter::highlighted(block.code, block.language).runs.size();
    }
    return work;
}

// 1,000 lines of code, cycled from the reply's own code blocks.
QString thousandCodeLines(const QList<Block> &blocks, QString *language)
{
    QStringList source;
    for (const Block &block : blocks) {
        if (block.kind == Block::Kind::Code) {
            source += block.code.split(u'\n');
            if (language->isEmpty() && block.language)
                *language = *block.language;
        }
    }
    if (source.isEmpty())
        source = {QStringLiteral("let answer = compute(42) // \"quoted\" /* note */")};
    QStringList lines;
    for (int i = 0; i < 1000; ++i)
        lines.append(source[i % source.size()]);
    return lines.join(u'\n');
}

} // namespace

int main()
{
    QFile file(Bench::longReplyFile());
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "bench_render: cannot read %s\n", qPrintable(file.fileName()));
        return 1;
    }
    const QByteArray bytes = file.readAll();
    const QString full = QString::fromUtf8(bytes);
    // The first 50 KB, cut at a line end so that it is a reply the model could have sent.
    const qsizetype cut = bytes.lastIndexOf('\n', 50 * 1024);
    const QString slice = QString::fromUtf8(bytes.first(cut > 0 ? cut : bytes.size()));
    std::printf("inputs: %lld bytes (%lld blocks) and %lld bytes (%lld blocks)\n", qlonglong(bytes.size()),
                qlonglong(MarkdownText::parse(full).size()), qlonglong(slice.toUtf8().size()),
                qlonglong(MarkdownText::parse(slice).size()));

    Bench::report("parse 50 KB", Bench::medianMs(50, [&] { MarkdownText::parse(slice); }), "ms");
    Bench::report("parse 86 KB", Bench::medianMs(50, [&] { MarkdownText::parse(full); }), "ms");
    Bench::report("cachedParse 86 KB, hit", Bench::medianMs(50, [&] { MarkdownText::cachedParse(full); }), "ms");

    const QList<Block> sliceBlocks = MarkdownText::parse(slice);
    const QList<Block> fullBlocks = MarkdownText::parse(full);
    Bench::report("inline, all blocks of 50 KB", Bench::medianMs(30, [&] { renderInline(sliceBlocks); }), "ms");
    Bench::report("inline, all blocks of 86 KB", Bench::medianMs(30, [&] { renderInline(fullBlocks); }), "ms");

    QString language;
    const QString code = thousandCodeLines(fullBlocks, &language);
    std::printf("code block: 1000 lines, %lld UTF-16 units, language \"%s\"\n", qlonglong(code.size()),
                qPrintable(language));
    Bench::report("highlight 1,000 lines (build)",
                  Bench::medianMs(20, [&] { SyntaxHighlighter::build(code, language.toLower()); }), "ms");
    Bench::report("highlight 1,000 lines, generic profile",
                  Bench::medianMs(20, [&] { SyntaxHighlighter::build(code, std::nullopt); }), "ms");

    // The same code streamed in 20-unit steps (50 ms of a model at 100 tokens per second): coloured
    // whole at every step, and from where it grew. The figure is for the whole block.
    const auto streamed = [&](auto &&colour) {
        return Bench::medianMs(5, [&] {
            for (qsizetype end = 20; end < code.size() + 20; end += 20)
                colour(code.first(std::min(end, code.size())));
        });
    };
    Bench::report("highlight 1,000 lines streamed, whole at each step",
                  streamed([&](const QString &prefix) { SyntaxHighlighter::build(prefix, language.toLower()); }), "ms");
    GrowingHighlighter growing(language.toLower());
    Bench::report("highlight 1,000 lines streamed, from where it grew",
                  streamed([&](const QString &prefix) { growing.highlight(prefix); }), "ms");

    // Streaming: each redraw sees the reply one chunk longer than the last (about 60 bytes, what
    // 50 ms of a fast model brings). Every call is a new text, as during a real stream.
    for (const QString *reply : {&slice, &full}) {
        const qsizetype chunk = 60;
        qsizetype length = reply->size() - 200 * chunk;
        MarkdownText::clearCache();
        SyntaxHighlighter::clearCache();
        redraw(reply->first(length));
        const double ms = Bench::medianMs(100, [&] {
            length = std::min(reply->size(), length + chunk);
            redraw(reply->first(length));
        });
        Bench::report(reply == &slice ? "redraw after one chunk, 50 KB reply" : "redraw after one chunk, 86 KB reply",
                      ms, "ms");
    }
    return 0;
}
