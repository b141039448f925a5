// Subcommands over the rendering core: blocks, inline, highlight.
#include "inspect.h"
#include "render/inlinemarkdown.h"
#include "render/markdowntext.h"
#include "render/syntaxhighlighter.h"

namespace {

int blocks(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("blocks takes no arguments"));
    const QString text = QString::fromUtf8(Inspect::readStdin());
    Json::Writer w;
    w.beginArray();
    for (const MarkdownText::Block &block : MarkdownText::cachedParse(text))
        toJson(w, block);
    w.endArray();
    Inspect::printLine(w.data());
    return 0;
}

int inlineRuns(const QStringList &args)
{
    if (!args.isEmpty())
        return Inspect::usage(QStringLiteral("inline takes no arguments"));
    const QString text = QString::fromUtf8(Inspect::readStdin());
    Json::Writer w;
    w.beginArray();
    for (const InlineRun &run : InlineMarkdown::render(text)) {
        w.beginObject();
        w.key(QLatin1StringView("text"));
        w.string(run.text);
        const auto flag = [&w](bool on, QLatin1StringView name) {
            if (!on)
                return;
            w.key(name);
            w.boolean(true);
        };
        flag(run.strong, QLatin1StringView("strong"));
        flag(run.emphasis, QLatin1StringView("emphasis"));
        flag(run.code, QLatin1StringView("code"));
        flag(run.strike, QLatin1StringView("strike"));
        if (run.link) {
            w.key(QLatin1StringView("link"));
            w.string(*run.link);
        }
        w.endObject();
    }
    w.endArray();
    Inspect::printLine(w.data());
    return 0;
}

int highlight(const QStringList &args)
{
    if (!Inspect::checkOptions(args, {QStringLiteral("--language")}))
        return 2;
    const std::optional<QString> language = Inspect::option(args, QStringLiteral("--language"));
    const QString code = QString::fromUtf8(Inspect::readStdin());
    const StyledCode styled = SyntaxHighlighter::highlighted(code, language);
    Json::Writer w;
    w.beginArray();
    for (const ColorRun &run : styled.runs) {
        w.beginObject();
        w.key(QLatin1StringView("start"));
        w.integer(run.start);
        w.key(QLatin1StringView("length"));
        w.integer(run.length);
        w.key(QLatin1StringView("color"));
        w.string(codeColorName(run.color));
        w.endObject();
    }
    w.endArray();
    Inspect::printLine(w.data());
    return 0;
}

} // namespace

VERBOLT_INSPECT_COMMAND("blocks", blocks);
VERBOLT_INSPECT_COMMAND("inline", inlineRuns);
VERBOLT_INSPECT_COMMAND("highlight", highlight);
