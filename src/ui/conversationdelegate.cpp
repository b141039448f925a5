#include "ui/conversationdelegate.h"

#include "ui/conversationlistmodel.h"
#include "ui/theme.h"

#include <QApplication>
#include <QFontMetrics>
#include <QImage>
#include <QPainter>
#include <QPen>
#include <QTextLayout>
#include <QTimer>

#include <array>

using namespace Qt::StringLiterals;

ConversationDelegate::ConversationDelegate(QObject *parent)
    : QStyledItemDelegate(parent)
{}

namespace {

// A few screenfuls of rows: enough that scrolling back and forth and every batch of search results
// repaint without shaping again.
constexpr qsizetype cachedLines = 400;

void layOutLine(QTextLayout &layout, const QString &text, const QFont &font,
                const QList<QTextLayout::FormatRange> &formats = {})
{
    layout.setText(text);
    layout.setFont(font);
    // Without it the layout forgets its shaping after laying out, and shapes again at each draw.
    layout.setCacheEnabled(true);
    layout.setFormats(formats);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine line = layout.createLine();
    line.setPosition(QPointF(0, 0));
    layout.endLayout();
}

// The found words in a line of context.
QFont hitFont(const QFont &context)
{
    QFont bold = context;
    bold.setWeight(QFont::Bold);
    return bold;
}

} // namespace

ConversationDelegate::Fonts ConversationDelegate::currentFonts()
{
    return {Theme::font(Theme::TextStyle::Body), Theme::font(Theme::TextStyle::Caption2),
            Theme::font(Theme::TextStyle::Caption)};
}

void ConversationDelegate::prepareFont(int step) const
{
    // Glyphs are kept for each quarter of a pixel they are drawn at, and drawing one the first time
    // takes some microseconds: one turn for each font, quarter and part of the letters keeps every
    // turn short.
    constexpr int quarters = 4;
    constexpr int parts = 4;
    const Fonts fonts = currentFonts();
    const std::array<QFont, 4> all{fonts.title, fonts.date, fonts.context, hitFont(fonts.context)};
    if (step >= int(all.size()) * quarters * parts)
        return;
    // The letters, digits and signs most titles and lines of context are made of.
    static const QString sample =
        u" !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~"
        u"ÀÁÂÃÄÅÆÇÈÉÊËÌÍÎÏÐÑÒÓÔÕÖØÙÚÛÜÝÞßàáâãäåæçèéêëìíîïðñòóôõöøùúûüýþÿ…"
        u"αβγδεζηθικλμνξοπρστυφχψω АБВГДЕЖЗИКЛМНОПРСТабвгдежзийклмнопрстуфхцчшщъыьэюя –—‘’“”•→←✓"_s;
    const qsizetype partLength = (sample.size() + parts - 1) / parts;
    const QString part = sample.mid(step % parts * partLength, partLength);
    QTextLayout layout;
    layOutLine(layout, part, all[std::size_t(step / (quarters * parts))]);
    const QSize size = layout.boundingRect().toAlignedRect().size() + QSize(1, 0);
    // Glyphs outside the image would not be drawn, nor kept.
    QImage image(size.expandedTo({1, 1}), QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    layout.draw(&painter, QPointF(qreal(step / parts % quarters) / quarters, 0));
    painter.end();
    QTimer::singleShot(0, this, [this, step] { prepareFont(step + 1); });
}

void ConversationDelegate::useFonts(const Fonts &fonts) const
{
    if (fonts == m_fonts)
        return;
    m_titles.clear();
    m_dates.clear();
    m_contexts.clear();
    m_contextGlyphs.clear();
    m_fonts = fonts;
    m_titleHeight = QFontMetrics(fonts.title).height();
    m_dateHeight = QFontMetrics(fonts.date).height();
}

ConversationDelegate::Glyphs ConversationDelegate::elidedLine(GlyphCache &cache, const QString &text, const QFont &font,
                                                              int width) const
{
    QString key = QString::number(width);
    key += QChar(u'\x1f') + text;
    if (const auto found = cache.constFind(key); found != cache.constEnd())
        return *found;
    ++m_linesShaped;
    QTextLayout layout;
    layOutLine(layout, text, font);
    // Most titles fit: eliding measures the text once more, so only the ones too wide pay for it.
    if (layout.lineAt(0).naturalTextWidth() > width) {
        const QString elided = QFontMetrics(font).elidedText(text, Qt::ElideRight, width);
        if (elided != text)
            layOutLine(layout, elided, font);
    }
    if (cache.size() >= cachedLines)
        cache.clear();
    return *cache.insert(key, std::make_shared<const QList<QGlyphRun>>(layout.glyphRuns()));
}

ConversationDelegate::Glyphs ConversationDelegate::contextGlyphs(const QString &context,
                                                                 const QList<TextSearch::Range> &hits, int width) const
{
    if (context.isEmpty())
        return nullptr;
    // The line is drawn clipped, not elided, so its shaping does not depend on the width.
    QString key = context;
    key.reserve(key.size() + 8 * hits.size());
    for (const TextSearch::Range &hit : hits)
        key += QChar(u'\x1f') + QString::number(hit.start) + QChar(u'+') + QString::number(hit.length);
    QString glyphsKey = QString::number(width);
    glyphsKey += QChar(u'\x1f') + key;
    if (const auto found = m_contextGlyphs.constFind(glyphsKey); found != m_contextGlyphs.constEnd())
        return *found;

    Line layout = m_contexts.value(key);
    if (!layout) {
        ++m_linesShaped;
        const QFont bold = hitFont(m_fonts.context);
        QList<QTextLayout::FormatRange> formats;
        for (const TextSearch::Range &hit : hits) {
            QTextCharFormat format;
            format.setFont(bold);
            formats.append({int(hit.start), int(hit.length), format});
        }
        auto laidOut = std::make_shared<QTextLayout>();
        layOutLine(*laidOut, context, m_fonts.context, formats);
        if (m_contexts.size() >= cachedLines)
            m_contexts.clear();
        layout = *m_contexts.insert(key, std::move(laidOut));
    }
    // A glyph starting a little past the edge may still reach back over it.
    const qreal edge = width + layout->lineAt(0).height();
    auto shown = std::make_shared<QList<QGlyphRun>>();
    for (const QGlyphRun &run : layout->glyphRuns()) {
        const QList<quint32> indexes = run.glyphIndexes();
        const QList<QPointF> positions = run.positions();
        QList<quint32> keptIndexes;
        QList<QPointF> keptPositions;
        for (qsizetype i = 0; i < indexes.size() && i < positions.size(); ++i) {
            if (positions.at(i).x() < edge) {
                keptIndexes.append(indexes.at(i));
                keptPositions.append(positions.at(i));
            }
        }
        if (keptIndexes.isEmpty())
            continue;
        QGlyphRun part = run;
        part.setGlyphIndexes(keptIndexes);
        part.setPositions(keptPositions);
        shown->append(part);
    }
    if (m_contextGlyphs.size() >= cachedLines)
        m_contextGlyphs.clear();
    return *m_contextGlyphs.insert(glyphsKey, std::move(shown));
}

void ConversationDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    const QWidget *widget = opt.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();

    // The style draws the selection and hover backgrounds; the text is ours.
    opt.text.clear();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &opt, painter, widget);

    const bool selected = opt.state.testFlag(QStyle::State_Selected);
    const QPalette::ColorGroup group = !opt.state.testFlag(QStyle::State_Enabled) ? QPalette::Disabled
                                       : opt.state.testFlag(QStyle::State_Active) ? QPalette::Active
                                                                                  : QPalette::Inactive;
    const QColor titleColor = opt.palette.color(group, selected ? QPalette::HighlightedText : QPalette::Text);
    const QColor dateColor =
        selected ? Theme::withOpacity(titleColor, 0.75) : Theme::color(Theme::Color::Secondary, opt.palette);

    const QRect content = opt.rect.adjusted(horizontalPadding, verticalPadding, -horizontalPadding, -verticalPadding);
    useFonts(currentFonts());
    if (!m_fontsPrepared) {
        m_fontsPrepared = true;
        QTimer::singleShot(0, this, [this] { prepareFont(0); });
    }
    const Glyphs title = elidedLine(m_titles, index.data(Qt::DisplayRole).toString(), m_fonts.title, content.width());
    const Glyphs date =
        elidedLine(m_dates, index.data(ConversationListModel::DateTextRole).toString(), m_fonts.date, content.width());
    const Glyphs context = contextGlyphs(
        index.data(ConversationListModel::ContextRole).toString(),
        index.data(ConversationListModel::ContextHitsRole).value<QList<TextSearch::Range>>(), content.width());
    const int dateTop = content.top() + m_titleHeight + lineSpacing;
    const int contextTop = dateTop + m_dateHeight + lineSpacing;

    painter->save();
    painter->setClipRect(content);
    const auto drawLine = [painter](const Glyphs &line, const QPointF &at) {
        for (const QGlyphRun &run : *line)
            painter->drawGlyphRun(at, run);
    };
    painter->setPen(titleColor);
    drawLine(title, content.topLeft());
    painter->setPen(dateColor);
    drawLine(date, QPointF(content.left(), dateTop));
    if (context) {
        painter->setPen(titleColor);
        drawLine(context, QPointF(content.left(), contextTop));
    }
    painter->setClipping(false);
    // The row the keyboard is on, while the list has the focus: without it, a selected row looks
    // the same whether the arrows move it or the composer has the keys. A ring in the text's
    // colour stands out on the selection as on the plain background, light or dark.
    if (opt.state.testFlag(QStyle::State_HasFocus)) {
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(QPen(titleColor, 2));
        painter->setBrush(Qt::NoBrush);
        painter->drawRoundedRect(QRectF(opt.rect).adjusted(2, 2, -2, -2), 4, 4);
    }
    painter->restore();
}

void ConversationDelegate::prepare(const QString &title, const QString &dateText, const QString &context,
                                   const QList<TextSearch::Range> &contextHits, int rowWidth) const
{
    useFonts(currentFonts());
    const int width = rowWidth - 2 * horizontalPadding;
    (void)elidedLine(m_titles, title, m_fonts.title, width);
    (void)elidedLine(m_dates, dateText, m_fonts.date, width);
    (void)contextGlyphs(context, contextHits, width);
}

QSize ConversationDelegate::sizeHint(const QStyleOptionViewItem &, const QModelIndex &index) const
{
    // No width of its own: the list makes each row as wide as its viewport. A width taken from the
    // list as it was laid out would outlast the scroll bar that comes with a search's results, and
    // the rows would be drawn too wide, past the bar, until the next layout.
    return {2 * horizontalPadding, rowHeight(hasContext(index))};
}

int ConversationDelegate::rowHeight(bool withContext)
{
    int height = QFontMetrics(Theme::font(Theme::TextStyle::Body)).height() + lineSpacing +
                 QFontMetrics(Theme::font(Theme::TextStyle::Caption2)).height() + 2 * verticalPadding;
    if (withContext)
        height += lineSpacing + QFontMetrics(Theme::font(Theme::TextStyle::Caption)).height();
    return height;
}

bool ConversationDelegate::hasContext(const QModelIndex &index)
{
    // Search results always carry the role, even with an empty line: their rows keep one height.
    return index.data(ConversationListModel::ContextRole).isValid();
}
