#include "ui/inlinetext.h"

#include "ui/theme.h"

#include <QPainter>
#include <QTextLine>

#include <cmath>

namespace {

// Wide enough that no line wraps: used to measure a text's natural width.
constexpr qreal unwrappedWidth = 1e7;
// Extra space between the lines of one wrapped text.
constexpr qreal lineSpacing = 1;

} // namespace

bool InlineText::setSource(const QString &source)
{
    if (source == m_source && !m_text.isNull())
        return false;
    const QString oldText = std::move(m_text);
    const QList<QTextLayout::FormatRange> oldFormats = std::move(m_formats);
    m_source = source;
    m_text.clear();
    m_formats.clear();
    m_links.clear();

    const QList<InlineRun> runs = InlineMarkdown::render(source);
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
    m_oldChangedTop = 0;
    if (m_laidOutWidth > 0 && m_layout.lineCount() > 0) {
        const QTextLine line = m_layout.lineForTextPosition(int(std::min(first, oldText.size())));
        m_oldChangedTop = line.isValid() ? int(line.y()) : int(m_layout.lineAt(m_layout.lineCount() - 1).y());
    }
    m_laidOutWidth = -1;
    m_idealWidth = -1;
    return true;
}

int InlineText::changedTop() const
{
    if (m_laidOutWidth < 0 || m_layout.lineCount() == 0)
        return 0;
    const QTextLine line = m_layout.lineForTextPosition(int(std::min(m_firstChange, m_text.size())));
    const int top = line.isValid() ? int(line.y()) : int(m_layout.lineAt(m_layout.lineCount() - 1).y());
    return std::min(top, m_oldChangedTop);
}

bool InlineText::setFont(const QFont &font)
{
    if (font == m_font)
        return false;
    m_font = font;
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
        const qreal previous = m_laidOutWidth;
        layOut(unwrappedWidth);
        qreal widest = 0;
        for (int i = 0; i < m_layout.lineCount(); ++i)
            widest = std::max(widest, m_layout.lineAt(i).naturalTextWidth());
        m_idealWidth = int(std::ceil(widest));
        if (previous > 0 && previous != unwrappedWidth)
            layOut(previous);
    }
    return m_idealWidth;
}

void InlineText::layOut(qreal width)
{
    m_layout.clearLayout();
    m_layout.setText(m_text);
    m_layout.setFont(m_font);
    m_layout.setFormats(m_formats);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    m_layout.setTextOption(option);
    m_layout.setCacheEnabled(true);

    qreal y = 0;
    m_layout.beginLayout();
    for (QTextLine line = m_layout.createLine(); line.isValid(); line = m_layout.createLine()) {
        line.setLineWidth(width);
        if (y > 0)
            y += lineSpacing;
        line.setPosition(QPointF(0, y));
        y += line.height();
    }
    m_layout.endLayout();
    m_laidOutWidth = width;
    m_height = int(std::ceil(y));
}

void InlineText::draw(QPainter *painter, QPointF pos, const QColor &color, const QColor &linkColor,
                      const QRectF &clip) const
{
    QList<QTextLayout::FormatRange> colours;
    colours.reserve(m_links.size());
    for (const Link &link : m_links) {
        QTextCharFormat format;
        format.setForeground(linkColor);
        colours.append({link.start, link.length, format});
    }
    painter->setPen(color);
    m_layout.draw(painter, pos, colours, clip);
}

std::optional<QString> InlineText::linkAt(QPointF point) const
{
    if (m_links.isEmpty())
        return std::nullopt;
    for (int i = 0; i < m_layout.lineCount(); ++i) {
        const QTextLine line = m_layout.lineAt(i);
        if (point.y() < line.y() || point.y() >= line.y() + line.height())
            continue;
        if (point.x() > line.naturalTextWidth())
            return std::nullopt;
        const int cursor = line.xToCursor(point.x(), QTextLine::CursorOnCharacter);
        for (const Link &link : m_links) {
            if (cursor >= link.start && cursor < link.start + link.length)
                return link.target;
        }
        return std::nullopt;
    }
    return std::nullopt;
}
