#include "ui/inlinetext.h"

#include "ui/markedtext.h"
#include "ui/theme.h"

#include <QCoreApplication>
#include <QLocale>
#include <QPainter>
#include <QTextLine>

#include <cmath>

namespace {

// Wide enough that no line wraps: used to measure a text's natural width.
constexpr qreal unwrappedWidth = 1e7;
// Extra space between the lines of one wrapped text.
constexpr qreal lineSpacing = 1;
// The most characters one layout holds. Finding where to wrap a line with no place to break
// scans the rest of its layout for every line, so this bounds that scan.
constexpr qsizetype pieceLength = 4096;
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

} // namespace

struct InlineText::Piece
{
    qsizetype start = 0;  // in the shown text
    qsizetype length = 0; // a line separator that ends the piece is not part of it
    qsizetype next = 0;   // where the following piece starts
    QTextLayout layout;
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
    static const QStringList monoFamilies = Theme::monospaceFont().families();
    for (const InlineRun &run : runs) {
        const int start = int(m_text.size());
        m_text += run.text;
        if (!run.strong && !run.emphasis && !run.code && !run.strike && !run.link)
            continue;
        QTextCharFormat format;
        if (run.strong)
            format.setFontWeight(QFont::Bold);
        if (run.emphasis)
            format.setFontItalic(true);
        if (run.code)
            format.setFontFamilies(monoFamilies);
        if (run.strike)
            format.setFontStrikeOut(true);
        if (run.link) {
            format.setFontUnderline(true);
            m_links.append({start, int(run.text.size()), *run.link});
        }
        m_formats.append({start, int(run.text.size()), format});
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
    m_firstChange = first;
    // The old layout's line of that character may hold text that now wraps onto the next line.
    m_oldChangedTop = wasLaidOut ? lineTop(std::min(first, oldText.size())) : 0;
    cutPieces(first);
    m_laidOutWidth = -1;
    m_idealWidth = -1;
    return true;
}

void InlineText::cutPieces(qsizetype from)
{
    // A piece is kept, layout and all, when everything that decided its end comes before the
    // first change; the last piece never is, since its end was the end of the text.
    std::size_t keep = 0;
    while (keep + 1 < m_pieces.size() && m_pieces[keep]->start + pieceLength < from)
        ++keep;
    m_pieces.resize(keep);

    const qsizetype size = m_text.size();
    qsizetype pos = keep ? m_pieces.back()->next : 0;
    for (;;) {
        auto piece = std::make_unique<Piece>();
        piece->start = pos;
        bool atSeparator = false;
        if (size - pos <= pieceLength) {
            piece->length = size - pos;
            piece->next = size;
        } else {
            // Cut where the text breaks a line anyway, else after a blank, else anywhere but
            // inside a surrogate pair.
            const qsizetype limit = pos + pieceLength;
            const qsizetype separator = m_text.lastIndexOf(QChar::LineSeparator, limit);
            if (separator > pos + pieceLength / 2) {
                piece->length = separator - pos;
                piece->next = separator + 1;
                atSeparator = true;
            } else {
                qsizetype end = limit;
                while (end > pos + pieceLength / 2 && m_text.at(end - 1) != u' ')
                    --end;
                if (end <= pos + pieceLength / 2)
                    end = m_text.at(limit - 1).isHighSurrogate() ? limit - 1 : limit;
                piece->length = end - pos;
                piece->next = end;
            }
        }
        pos = piece->next;
        m_pieces.push_back(std::move(piece));
        if (pos < size)
            continue;
        if (atSeparator) {
            // The text ends with a line break: its empty last line is a piece of its own.
            auto tail = std::make_unique<Piece>();
            tail->start = tail->next = size;
            m_pieces.push_back(std::move(tail));
        }
        break;
    }
}

int InlineText::changedTop() const
{
    if (m_laidOutWidth < 0 || m_pieces.empty())
        return 0;
    return std::min(lineTop(std::min(m_firstChange, m_text.size())), m_oldChangedTop);
}

const InlineText::Piece *InlineText::pieceAt(qsizetype position) const
{
    for (const auto &piece : m_pieces) {
        if (position < piece->next || piece == m_pieces.back())
            return piece.get();
    }
    return nullptr;
}

int InlineText::lineTop(qsizetype position) const
{
    const Piece *piece = pieceAt(position);
    if (!piece || piece->laidOutWidth < 0 || piece->layout.lineCount() == 0)
        return 0;
    const QTextLayout &layout = piece->layout;
    const QTextLine line =
        layout.lineForTextPosition(int(std::clamp(position - piece->start, qsizetype(0), piece->length)));
    return int(piece->y + (line.isValid() ? line.y() : layout.lineAt(layout.lineCount() - 1).y()));
}

bool InlineText::setFont(const QFont &font)
{
    if (font == m_font)
        return false;
    m_font = font;
    for (auto &piece : m_pieces) {
        piece->laidOutWidth = -1;
        piece->naturalWidth = -1;
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
        // Measured on layouts of their own, so the wrapped ones stay as they are; a piece kept
        // from before a change keeps its measure, so a growing text measures only its end.
        qreal widest = 0;
        QTextOption option;
        option.setWrapMode(QTextOption::NoWrap);
        for (const auto &piece : m_pieces) {
            if (piece->naturalWidth < 0) {
                QTextLayout layout(m_text.mid(piece->start, piece->length), m_font);
                layout.setTextOption(option);
                layout.setFormats(formatsOf(*piece));
                piece->naturalWidth = 0;
                layout.beginLayout();
                for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
                    line.setLineWidth(unwrappedWidth);
                    piece->naturalWidth = std::max(piece->naturalWidth, line.naturalTextWidth());
                }
                layout.endLayout();
            }
            widest = std::max(widest, piece->naturalWidth);
        }
        m_idealWidth = int(std::ceil(widest));
    }
    return m_idealWidth;
}

QList<QTextLayout::FormatRange> InlineText::formatsOf(const Piece &piece) const
{
    QList<QTextLayout::FormatRange> formats;
    for (const QTextLayout::FormatRange &range : std::as_const(m_formats)) {
        const qsizetype start = std::max<qsizetype>(range.start, piece.start);
        const qsizetype end = std::min<qsizetype>(range.start + range.length, piece.start + piece.length);
        if (end > start)
            formats.append({int(start - piece.start), int(end - start), range.format});
    }
    return formats;
}

void InlineText::layOut(qreal width)
{
    qreal y = 0;
    for (const auto &piece : m_pieces) {
        if (piece->laidOutWidth != width) {
            QTextLayout &layout = piece->layout;
            const QStringView text = QStringView(m_text).sliced(piece->start, piece->length);
            layout.clearLayout();
            layout.setText(text.toString());
            layout.setFont(m_font);
            layout.setFormats(formatsOf(*piece));
            QTextOption option;
            option.setWrapMode(needsWrapAnywhere(text) ? QTextOption::WrapAnywhere
                                                       : QTextOption::WrapAtWordBoundaryOrAnywhere);
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
            piece->height = lineY;
            piece->laidOutWidth = width;
        }
        if (y > 0)
            y += lineSpacing;
        piece->y = y;
        y += piece->height;
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
    for (const auto &piece : m_pieces) {
        const qsizetype pieceEnd = piece->start + piece->length;
        while (hit != m_highlights.cend() && hit->start + hit->length <= piece->start)
            ++hit;
        if (clip.isValid() && (piece->y > clip.bottom() || piece->y + piece->height < clip.top()))
            continue;
        QList<QTextLayout::FormatRange> colours;
        const auto addColour = [&](qsizetype start, qsizetype length, const QColor &c) {
            const qsizetype from = std::max(start, piece->start);
            const qsizetype to = std::min(start + length, pieceEnd);
            if (to <= from)
                return;
            QTextCharFormat format;
            format.setForeground(c);
            colours.append({int(from - piece->start), int(to - from), format});
        };
        for (const Link &link : m_links)
            addColour(link.start, link.length, linkColor);
        if (m_noteStart >= 0)
            addColour(m_noteStart, m_text.size() - m_noteStart, Theme::withOpacity(color, 0.6));
        marks.clear();
        for (auto h = hit; h != m_highlights.cend() && h->start < pieceEnd; ++h) {
            const qsizetype from = std::max(h->start, piece->start);
            const qsizetype to = std::min(h->start + h->length, pieceEnd);
            if (to > from)
                marks.append(
                    {int(from - piece->start), int(to - from), h - m_highlights.cbegin() == m_currentHighlight});
        }
        // The layout takes its clip in the painter's coordinates.
        MarkedText::draw(painter, piece->layout, pos + QPointF(0, piece->y), colours, marks,
                         clip.isValid() ? clip.translated(pos) : clip);
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
    const Piece *piece = pieceAt(range.start);
    if (m_laidOutWidth < 0 || !piece || piece->laidOutWidth < 0)
        return {};
    const int start = int(std::clamp(range.start - piece->start, qsizetype(0), piece->length));
    const int end = int(std::clamp(range.start + range.length - piece->start, qsizetype(start), piece->length));
    const QTextLine line = piece->layout.lineForTextPosition(start);
    if (!line.isValid())
        return {};
    const qreal x = line.cursorToX(start);
    // A range wrapped onto the next line is as wide as its part on this one.
    const qreal right = line.cursorToX(std::min(end, line.textStart() + line.textLength()));
    return QRectF(x, piece->y + line.y(), std::max<qreal>(1, right - x), line.height());
}

std::optional<QString> InlineText::linkAt(QPointF point) const
{
    if (m_links.isEmpty())
        return std::nullopt;
    for (const auto &piece : m_pieces) {
        if (point.y() < piece->y || point.y() >= piece->y + piece->height)
            continue;
        const QTextLayout &layout = piece->layout;
        const qreal y = point.y() - piece->y;
        for (int i = 0; i < layout.lineCount(); ++i) {
            const QTextLine line = layout.lineAt(i);
            if (y < line.y() || y >= line.y() + line.height())
                continue;
            if (point.x() > line.naturalTextWidth())
                return std::nullopt;
            const qsizetype cursor = piece->start + line.xToCursor(point.x(), QTextLine::CursorOnCharacter);
            for (const Link &link : m_links) {
                if (cursor >= link.start && cursor < link.start + link.length)
                    return link.target;
            }
            return std::nullopt;
        }
    }
    return std::nullopt;
}

qreal InlineText::laidOutRight() const
{
    qreal right = 0;
    for (const auto &piece : m_pieces) {
        for (int i = 0; i < piece->layout.lineCount(); ++i) {
            const QTextLine line = piece->layout.lineAt(i);
            right = std::max(right, line.x() + line.naturalTextWidth());
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
