#pragma once

#include <QList>
#include <QString>
#include <QStringView>

#include <optional>

// A stretch of rendered inline text with one style.
struct InlineRun
{
    QString text;
    bool strong = false;
    bool emphasis = false;
    bool code = false;
    bool strike = false;
    // The link's destination, kept as data: escapes and entities decoded, "mailto:" added for an
    // e-mail autolink. Nothing here is ever fetched; see InlineMarkdown::isOpenableLink().
    std::optional<QString> link;

    bool sameStyle(const InlineRun &other) const
    {
        return strong == other.strong && emphasis == other.emphasis && code == other.code && strike == other.strike &&
               link == other.link;
    }
    friend bool operator==(const InlineRun &, const InlineRun &) = default;
};

// Inline Markdown of one block's text: emphasis, strong, code spans, inline links and images
// (shown as their text), autolinks, backslash escapes, entities and strikethrough, by the
// CommonMark inline rules. Block syntax is never interpreted, line feeds and runs of blanks are
// kept, raw HTML stays literal text. Rendering never fails: should the result ever be
// inconsistent, the text comes back as one plain run.
class InlineMarkdown final
{
public:
    InlineMarkdown() = delete;

    // Styled runs in text order, neighbours of equal style merged, no empty runs. Linear in the
    // text's length, whatever the input. Safe on any thread.
    static QList<InlineRun> render(QStringView text);
    // Only http, https and mailto links are ever opened; every other target stays inert text.
    static bool isOpenableLink(const QString &target);
};
