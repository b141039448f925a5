#include "ui/inlinetext.h"

#include "ui/markedtext.h"
#include "ui/theme.h"

#include <QCoreApplication>
#include <QFontMetricsF>
#include <QHash>
#include <QLocale>
#include <QPainter>
#include <QTextLine>

#include <cmath>

namespace {

// Wide enough that no line wraps: used to measure a text's natural width.
constexpr qreal unwrappedWidth = 1e7;
// Extra space between the lines of one wrapped text.
constexpr qreal lineSpacing = 1;
// The most characters one span holds. Finding where to wrap a line with no place to break
// scans the rest of its layout for every line, so this bounds that scan.
constexpr qsizetype spanLength = 4096;
// A stretch without blanks this long can only wrap anywhere; saying so spares the layout its
// search for a word boundary.
constexpr qsizetype unbrokenRun = 512;

bool needsWrapAnywhere(QStringView text)
{
    qsizetype run = 0;
    for (QChar c : text) {
        run = c.isSpace() ? 0 : run + 1;
        if (run > unbrokenRun)
            return true;
    }
    return false;
}

// Whether text holds anything that reads right to left or steers the direction of what follows.
// The order of such text on a line depends on the whole paragraph around it.
bool hasBidi(QStringView text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t c = text.at(i).unicode();
        if (c < 0x0590)
            continue;
        if (QChar::isHighSurrogate(c) && i + 1 < text.size() && text.at(i + 1).isLowSurrogate())
            c = QChar::surrogateToUcs4(char16_t(c), text.at(++i).unicode());
        switch (QChar::direction(c)) {
        case QChar::DirR:
        case QChar::DirAL:
        case QChar::DirAN:
        case QChar::DirRLE:
        case QChar::DirRLO:
        case QChar::DirLRE:
        case QChar::DirLRO:
        case QChar::DirPDF:
        case QChar::DirRLI:
        case QChar::DirLRI:
        case QChar::DirFSI:
        case QChar::DirPDI:
            return true;
        default:
            break;
        }
    }
    return false;
}

int styleKey(const InlineRun &run)
{
    return (run.strong ? 1 : 0) | (run.emphasis ? 2 : 0) | (run.code ? 4 : 0) | (run.strike ? 8 : 0) |
           (run.link ? 16 : 0);
}

// One shared format per style: a streamed paragraph builds its formats again on every update,
// and formats that share their data compare equal at once.
const QTextCharFormat &styleFormat(int key)
{
    static QTextCharFormat formats[32];
    QTextCharFormat &format = formats[key];
    if (format.properties().isEmpty()) {
        format = QTextCharFormat();
        if (key & 1)
            format.setFontWeight(QFont::Bold);
        if (key & 2)
            format.setFontItalic(true);
        if (key & 4)
            format.setFontFamilies(Theme::monospaceFont().families());
        if (key & 8)
            format.setFontStrikeOut(true);
        if (key & 16)
            format.setFontUnderline(true);
    }
    return format;
}

// A layout makes the font of each style it shows as it needs it, and nothing holds that font
// afterwards: Qt's font cache lets go of fonts nobody holds every ten seconds, and making one
// again asks fontconfig for its fallback families, in the middle of a streamed reply. The fonts of
// the styles shown are held for the program's life instead; there are a few per text font.
void holdStyleFonts(const QFont &base, quint32 styles)
{
    static QHash<QString, quint32> held;
    static std::vector<QFont> fonts;
    quint32 &done = held[base.key()];
    for (int key = 1; key < 32; ++key) {
        if (!(styles & ~done & (1u << key)))
            continue;
        // Resolved as the layout resolves a format's font against its own.
        QFont font = styleFormat(key).font().resolve(base);
        QFontMetricsF(font).height(); // the font's engines are found, and held, only once it is used
        fonts.push_back(font);
    }
    done |= styles;
}

} // namespace

// A run of lines laid out together. Its layout may hold more text than the part owns: lines past
// `lines` show text that a later part lays out again, and are neither drawn nor asked.
struct InlineText::Part
{
    qsizetype start = 0; // in the shown text
    QTextLayout layout;
    int lines = -1; // the layout's lines that are this part's; all of them when -1
    qreal y = 0;    // the top of the part in its span
    qreal height = 0;

    int lineCount() const { return lines < 0 ? layout.lineCount() : std::min(lines, layout.lineCount()); }
};

// A stretch of the shown text laid out as one paragraph. While it grows, the lines that the growth
// cannot move are kept in the parts that laid them out, and only the rest is laid out again.
struct InlineText::Span
{
    qsizetype start = 0;  // in the shown text
    qsizetype length = 0; // a line separator that ends the span is not part of it
    qsizetype next = 0;   // where the following span starts
    std::vector<std::unique_ptr<Part>> parts;
    qsizetype laidOutTo = 0; // the end of the last part's text; parts stop short of it after a change
    bool wrapAnywhere = false;
    qreal laidOutWidth = -1;
    qreal naturalWidth = -1; // its widest line unwrapped
    qreal y = 0;
    qreal height = 0;
};

InlineText::InlineText() = default;
InlineText::~InlineText() = default;

QStringView InlineText::shownPart(QStringView source)
{
    if (source.size() <= shownLimit)
        return source;
    return source.first(shownLimit - (source.at(shownLimit - 1).isHighSurrogate() ? 1 : 0));
}

bool InlineText::setSource(const QString &source)
{
    if (source == m_source && !m_text.isNull())
        return false;
    const QString oldText = std::move(m_text);
    const QList<QTextLayout::FormatRange> oldFormats = std::move(m_formats);
    const bool wasLaidOut = m_laidOutWidth > 0;
    m_source = source;
    m_text.clear();
    m_formats.clear();
    m_links.clear();

    const QStringView shown = shownPart(source);
    m_cut = shown.size() < source.size();

    const QList<InlineRun> runs = InlineMarkdown::render(shown);
    for (const InlineRun &run : runs) {
        const int start = int(m_text.size());
        m_text += run.text;
        const int key = styleKey(run);
        if (!key)
            continue;
        if (run.link)
            m_links.append({start, int(run.text.size()), *run.link});
        m_formats.append({start, int(run.text.size()), styleFormat(key)});
        m_styles |= 1u << key;
    }
    m_noteStart = -1;
    if (m_cut) {
        m_text += u'\n';
        m_noteStart = m_text.size();
        m_text += QCoreApplication::translate("InlineText", "… %L1 more characters not shown here; copying the "
                                                            "message takes all of them.")
                      .arg(source.size() - shown.size());
        QTextCharFormat note;
        note.setFontItalic(true);
        m_formats.append({int(m_noteStart), int(m_text.size() - m_noteStart), note});
    }
    // Line feeds break lines without ending the paragraph; the offsets stay those of the runs.
    m_text.replace(QLatin1Char('\n'), QChar::LineSeparator);
    if (m_text.isNull())
        m_text = QLatin1String("");

    // The first character shown differently: text or style.
    qsizetype first = 0;
    const qsizetype common = std::min(oldText.size(), m_text.size());
    while (first < common && oldText.at(first) == m_text.at(first))
        ++first;
    for (qsizetype i = 0; i < std::max(oldFormats.size(), m_formats.size()); ++i) {
        if (i < oldFormats.size() && i < m_formats.size() && oldFormats.at(i).start == m_formats.at(i).start &&
            oldFormats.at(i).length == m_formats.at(i).length && oldFormats.at(i).format == m_formats.at(i).format)
            continue;
        const qsizetype a = i < oldFormats.size() ? oldFormats.at(i).start : first;
        const qsizetype b = i < m_formats.size() ? m_formats.at(i).start : first;
        first = std::min({first, a, b});
        break;
    }
    // A paragraph that now starts with a letter of the other direction reads the other way
    // throughout: none of its lines stays.
    const Qt::LayoutDirection direction = QStringView(m_text).isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight;
    if (direction != m_direction) {
        m_direction = direction;
        first = 0;
    }
    m_firstChange = first;
    // The old layout's line of that character may hold text that now wraps onto the next line.
    m_oldChangedTop = wasLaidOut ? lineTop(std::max<qsizetype>(0, lineStart(std::min(first, oldText.size())) - 1)) : 0;
    cutSpans(first);
    m_laidOutWidth = -1;
    m_idealWidth = -1;
    return true;
}

void InlineText::cutSpans(qsizetype from)
{
    // A span is kept, layout and all, when everything that decided its end comes before the
    // first change; the last span never is, since its end was the end of the text.
    std::size_t keep = 0;
    while (keep + 1 < m_spans.size() && m_spans[keep]->start + spanLength < from)
        ++keep;
    // The first span not kept starts where it did: its lines above the change may stay.
    std::unique_ptr<Span> changed = keep < m_spans.size() ? std::move(m_spans[keep]) : nullptr;
    m_spans.resize(keep);

    const qsizetype size = m_text.size();
    qsizetype pos = keep ? m_spans.back()->next : 0;
    for (;;) {
        auto span = std::make_unique<Span>();
        span->start = pos;
        bool atSeparator = false;
        if (size - pos <= spanLength) {
            span->length = size - pos;
            span->next = size;
        } else {
            // Cut where the text breaks a line anyway, else after a blank, else anywhere but
            // inside a surrogate pair.
            const qsizetype limit = pos + spanLength;
            const qsizetype separator = m_text.lastIndexOf(QChar::LineSeparator, limit);
            if (separator > pos + spanLength / 2) {
                span->length = separator - pos;
                span->next = separator + 1;
                atSeparator = true;
            } else {
                qsizetype end = limit;
                while (end > pos + spanLength / 2 && m_text.at(end - 1) != u' ')
                    --end;
                if (end <= pos + spanLength / 2)
                    end = m_text.at(limit - 1).isHighSurrogate() ? limit - 1 : limit;
                span->length = end - pos;
                span->next = end;
            }
        }
        span->laidOutTo = span->start;
        span->wrapAnywhere = needsWrapAnywhere(QStringView(m_text).sliced(span->start, span->length));
        if (changed) {
            keepSettledLines(*changed, *span, from);
            changed.reset();
        }
        pos = span->next;
        m_spans.push_back(std::move(span));
        if (pos < size)
            continue;
        if (atSeparator) {
            // The text ends with a line break: its empty last line is a span of its own.
            auto tail = std::make_unique<Span>();
            tail->start = tail->next = tail->laidOutTo = size;
            m_spans.push_back(std::move(tail));
        }
        break;
    }
}

void InlineText::keepSettledLines(Span &old, Span &span, qsizetype from) const
{
    // Lines are filled greedily: text that comes after a line's end cannot move that line, as long
    // as the word that did not fit on it is still the same. Text read right to left, or in a
    // paragraph that is, is ordered by its whole paragraph, so it is laid out whole.
    if (old.laidOutWidth < 0 || old.parts.empty() || old.wrapAnywhere != span.wrapAnywhere ||
        m_direction == Qt::RightToLeft || hasBidi(QStringView(m_text).sliced(span.start, span.length)))
        return;
    const QStringView text(m_text);
    // Laying out again from a line's start lays out that line as before when the line before it
    // ended at a blank (so no glyph there is shaped with its neighbour) and the word that
    // started it, with the blanks after it and the next character, came before the change.
    const auto settled = [&](qsizetype lineStart) {
        if (lineStart <= span.start || lineStart >= from || !text.at(lineStart - 1).isSpace())
            return false;
        qsizetype i = lineStart;
        while (i < from && !text.at(i).isSpace())
            ++i;
        while (i < from && text.at(i).isSpace())
            ++i;
        return i + 1 < from;
    };
    for (std::size_t p = old.parts.size(); p-- > 0;) {
        Part &part = *old.parts[p];
        if (part.start >= from)
            continue;
        for (int l = part.lineCount(); l-- > 0;) {
            const QTextLine line = part.layout.lineAt(l);
            const qsizetype lineStart = part.start + line.textStart();
            if (!settled(lineStart))
                continue;
            old.parts.resize(l > 0 ? p + 1 : p);
            if (l > 0) {
                part.lines = l;
                const QTextLine last = part.layout.lineAt(l - 1);
                part.height = last.y() + last.height();
            }
            span.parts = std::move(old.parts);
            span.laidOutTo = lineStart;
            span.laidOutWidth = old.laidOutWidth;
            return;
        }
    }
}

int InlineText::changedTop() const
{
    if (m_laidOutWidth < 0 || m_spans.empty())
        return 0;
    // From the line above the change: a glyph may reach past the top of its line (the dots of a
    // capital Ü), and a repaint cut at that top would leave them half drawn.
    const qsizetype start = lineStart(std::min(m_firstChange, m_text.size()));
    return std::min(lineTop(std::max<qsizetype>(0, start - 1)), m_oldChangedTop);
}

const InlineText::Span *InlineText::spanAt(qsizetype position) const
{
    for (const auto &span : m_spans) {
        if (position < span->next || span == m_spans.back())
            return span.get();
    }
    return nullptr;
}

const InlineText::Part *InlineText::partAt(const Span &span, qsizetype position)
{
    const Part *found = nullptr;
    for (const auto &part : span.parts) {
        if (found && part->start > position)
            break;
        found = part.get();
    }
    return found;
}

std::optional<InlineText::LineRef> InlineText::lineOf(qsizetype position) const
{
    const Span *span = spanAt(position);
    if (!span || span->laidOutWidth < 0)
        return std::nullopt;
    const Part *part = partAt(*span, position);
    if (!part || part->lineCount() == 0)
        return std::nullopt;
    const qsizetype end = span->start + span->length;
    QTextLine line = part->layout.lineForTextPosition(int(std::clamp(position, part->start, end) - part->start));
    if (!line.isValid() || line.lineNumber() >= part->lineCount())
        line = part->layout.lineAt(part->lineCount() - 1);
    return LineRef{span->y + part->y, part->start, line};
}

int InlineText::lineTop(qsizetype position) const
{
    const std::optional<LineRef> ref = lineOf(position);
    return ref ? int(ref->partTop + ref->line.y()) : 0;
}

qsizetype InlineText::lineStart(qsizetype position) const
{
    const std::optional<LineRef> ref = lineOf(position);
    return ref ? ref->partStart + ref->line.textStart() : 0;
}

bool InlineText::setFont(const QFont &font)
{
    if (font == m_font)
        return false;
    m_font = font;
    m_heldStyles = 0;
    for (auto &span : m_spans) {
        span->laidOutWidth = -1;
        span->naturalWidth = -1;
    }
    m_laidOutWidth = -1;
    m_idealWidth = -1;
    return true;
}

int InlineText::heightForWidth(int width)
{
    const qreal w = std::max(1, width);
    if (m_laidOutWidth != w)
        layOut(w);
    return m_height;
}

int InlineText::idealWidth()
{
    if (m_idealWidth < 0) {
        // Measured on layouts of their own, so the wrapped ones stay as they are; a span kept
        // from before a change keeps its measure, so a growing text measures only its end.
        qreal widest = 0;
        QTextOption option;
        option.setWrapMode(QTextOption::NoWrap);
        for (const auto &span : m_spans) {
            if (span->naturalWidth < 0) {
                QTextLayout layout(m_text.mid(span->start, span->length), m_font);
                layout.setTextOption(option);
                layout.setFormats(formatsOf(span->start, span->length));
                span->naturalWidth = 0;
                layout.beginLayout();
                for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
                    line.setLineWidth(unwrappedWidth);
                    span->naturalWidth = std::max(span->naturalWidth, line.naturalTextWidth());
                }
                layout.endLayout();
            }
            widest = std::max(widest, span->naturalWidth);
        }
        m_idealWidth = int(std::ceil(widest));
    }
    return m_idealWidth;
}

QList<QTextLayout::FormatRange> InlineText::formatsOf(qsizetype from, qsizetype length) const
{
    QList<QTextLayout::FormatRange> formats;
    for (const QTextLayout::FormatRange &range : std::as_const(m_formats)) {
        const qsizetype start = std::max<qsizetype>(range.start, from);
        const qsizetype end = std::min<qsizetype>(range.start + range.length, from + length);
        if (end > start)
            formats.append({int(start - from), int(end - start), range.format});
    }
    return formats;
}

void InlineText::layOut(qreal width)
{
    if (m_styles & ~m_heldStyles) {
        holdStyleFonts(m_font, m_styles);
        m_heldStyles = m_styles;
    }
    qreal y = 0;
    for (const auto &span : m_spans) {
        if (span->laidOutWidth != width) {
            // Lines kept from another width would not be where this width puts them.
            span->parts.clear();
            span->laidOutTo = span->start;
        }
        const qsizetype end = span->start + span->length;
        if (span->parts.empty() || span->laidOutTo < end) {
            auto part = std::make_unique<Part>();
            part->start = span->laidOutTo;
            QTextLayout &layout = part->layout;
            layout.setText(m_text.sliced(part->start, end - part->start));
            layout.setFont(m_font);
            layout.setFormats(formatsOf(part->start, end - part->start));
            QTextOption option;
            option.setWrapMode(span->wrapAnywhere ? QTextOption::WrapAnywhere
                                                  : QTextOption::WrapAtWordBoundaryOrAnywhere);
            // A span's own first letter would give a later span that starts with a word of the
            // other direction the wrong one.
            option.setTextDirection(m_direction);
            layout.setTextOption(option);
            layout.setCacheEnabled(true);

            qreal lineY = 0;
            layout.beginLayout();
            for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
                line.setLineWidth(width);
                if (lineY > 0)
                    lineY += lineSpacing;
                line.setPosition(QPointF(0, lineY));
                lineY += line.height();
            }
            layout.endLayout();
            part->height = lineY;
            if (!span->parts.empty()) {
                const Part &above = *span->parts.back();
                part->y = above.y + above.height + lineSpacing;
            }
            span->parts.push_back(std::move(part));
            span->laidOutTo = end;
            span->laidOutWidth = width;
            span->height = span->parts.back()->y + span->parts.back()->height;
        }
        if (y > 0)
            y += lineSpacing;
        span->y = y;
        y += span->height;
    }
    m_laidOutWidth = width;
    m_height = int(std::ceil(y));
}

void InlineText::draw(QPainter *painter, QPointF pos, const QColor &color, const QColor &linkColor,
                      const QRectF &clip) const
{
    painter->setPen(color);
    auto hit = m_highlights.cbegin();
    QList<MarkedText::Mark> marks;
    QList<QTextLayout::FormatRange> colours;
    for (const auto &span : m_spans) {
        const qsizetype spanEnd = span->start + span->length;
        if (clip.isValid() && (span->y > clip.bottom() || span->y + span->height < clip.top()))
            continue;
        for (std::size_t p = 0; p < span->parts.size(); ++p) {
            const Part &part = *span->parts[p];
            const qsizetype partEnd = p + 1 < span->parts.size() ? span->parts[p + 1]->start : spanEnd;
            const qreal top = span->y + part.y;
            if (clip.isValid() && (top > clip.bottom() || top + part.height < clip.top()))
                continue;
            colours.clear();
            const auto addColour = [&](qsizetype start, qsizetype length, const QColor &c) {
                const qsizetype from = std::max(start, part.start);
                const qsizetype to = std::min(start + length, partEnd);
                if (to <= from)
                    return;
                QTextCharFormat format;
                format.setForeground(c);
                colours.append({int(from - part.start), int(to - from), format});
            };
            for (const Link &link : m_links)
                addColour(link.start, link.length, linkColor);
            if (m_noteStart >= 0)
                addColour(m_noteStart, m_text.size() - m_noteStart, Theme::withOpacity(color, 0.6));
            while (hit != m_highlights.cend() && hit->start + hit->length <= part.start)
                ++hit;
            marks.clear();
            for (auto h = hit; h != m_highlights.cend() && h->start < partEnd; ++h) {
                const qsizetype from = std::max(h->start, part.start);
                const qsizetype to = std::min(h->start + h->length, partEnd);
                if (to > from)
                    marks.append(
                        {int(from - part.start), int(to - from), h - m_highlights.cbegin() == m_currentHighlight});
            }
            // The layout takes its clip in the painter's coordinates.
            MarkedText::draw(painter, part.layout, pos + QPointF(0, top), colours, marks,
                             clip.isValid() ? clip.translated(pos) : clip, part.lineCount());
        }
    }
}

bool InlineText::setHighlights(const QList<TextSearch::Range> &ranges, int current)
{
    if (ranges == m_highlights && current == m_currentHighlight)
        return false;
    m_highlights = ranges;
    m_currentHighlight = current;
    return true;
}

QRectF InlineText::rangeRect(const TextSearch::Range &range) const
{
    const Span *span = spanAt(range.start);
    if (m_laidOutWidth < 0 || !span || span->laidOutWidth < 0)
        return {};
    const Part *part = partAt(*span, range.start);
    if (!part)
        return {};
    const qsizetype end = span->start + span->length;
    const int start = int(std::clamp(range.start, part->start, end) - part->start);
    const int stop = int(std::clamp(range.start + range.length, part->start + start, end) - part->start);
    const QTextLine line = part->layout.lineForTextPosition(start);
    if (!line.isValid() || line.lineNumber() >= part->lineCount())
        return {};
    const qreal x = line.cursorToX(start);
    // A range wrapped onto the next line is as wide as its part on this one.
    const qreal right = line.cursorToX(std::min(stop, line.textStart() + line.textLength()));
    return QRectF(x, span->y + part->y + line.y(), std::max<qreal>(1, right - x), line.height());
}

std::optional<QString> InlineText::linkAt(QPointF point) const
{
    if (m_links.isEmpty())
        return std::nullopt;
    for (const auto &span : m_spans) {
        if (point.y() < span->y || point.y() >= span->y + span->height)
            continue;
        for (const auto &part : span->parts) {
            const QTextLayout &layout = part->layout;
            const qreal y = point.y() - span->y - part->y;
            for (int i = 0; i < part->lineCount(); ++i) {
                const QTextLine line = layout.lineAt(i);
                if (y < line.y() || y >= line.y() + line.height())
                    continue;
                if (point.x() > line.naturalTextWidth())
                    return std::nullopt;
                const qsizetype cursor = part->start + line.xToCursor(point.x(), QTextLine::CursorOnCharacter);
                for (const Link &link : m_links) {
                    if (cursor >= link.start && cursor < link.start + link.length)
                        return link.target;
                }
                return std::nullopt;
            }
        }
    }
    return std::nullopt;
}

qreal InlineText::laidOutRight() const
{
    qreal right = 0;
    for (const auto &span : m_spans) {
        for (const auto &part : span->parts) {
            for (int i = 0; i < part->lineCount(); ++i) {
                const QTextLine line = part->layout.lineAt(i);
                right = std::max(right, line.x() + line.naturalTextWidth());
            }
        }
    }
    return right;
}

QString linkToolTip(const QString &target)
{
    constexpr qsizetype longest = 2000;
    QString shown = target.size() > longest ? target.first(longest) + QChar(0x2026) : target;
    // Escaped inside markup of our own: a target that looks like markup reads as itself.
    return QStringLiteral("<p style=\"white-space:pre-wrap\">") + shown.toHtmlEscaped() + QStringLiteral("</p>");
}
