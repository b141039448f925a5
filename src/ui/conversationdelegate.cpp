#include "ui/conversationdelegate.h"

#include "model/textsearch.h"
#include "ui/conversationlistmodel.h"
#include "ui/theme.h"

#include <QApplication>
#include <QFontMetrics>
#include <QPainter>
#include <QPen>
#include <QTextLayout>

ConversationDelegate::ConversationDelegate(QObject *parent)
    : QStyledItemDelegate(parent)
{}

struct ConversationDelegate::Lines
{
    QTextLayout title;
    QTextLayout date;
    QTextLayout context;
};

namespace {

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

} // namespace

const ConversationDelegate::Lines &ConversationDelegate::linesFor(const QModelIndex &index, int width,
                                                                  const Fonts &fonts) const
{
    if (!(fonts == m_fonts)) {
        m_lines.clear();
        m_fonts = fonts;
    }
    const QString title = index.data(Qt::DisplayRole).toString();
    const QString date = index.data(ConversationListModel::DateTextRole).toString();
    const QString context = index.data(ConversationListModel::ContextRole).toString();
    const auto hits = index.data(ConversationListModel::ContextHitsRole).value<QList<TextSearch::Range>>();
    QString key = QString::number(width);
    key.reserve(key.size() + title.size() + date.size() + context.size() + 8 * hits.size() + 3);
    key += QChar(u'\x1f') + title + QChar(u'\x1f') + date + QChar(u'\x1f') + context;
    for (const TextSearch::Range &hit : hits)
        key += QChar(u'\x1f') + QString::number(hit.start) + QChar(u'+') + QString::number(hit.length);
    if (const auto found = m_lines.constFind(key); found != m_lines.constEnd())
        return **found;

    auto lines = std::make_shared<Lines>();
    layOutLine(lines->title, QFontMetrics(fonts.title).elidedText(title, Qt::ElideRight, width), fonts.title);
    layOutLine(lines->date, QFontMetrics(fonts.date).elidedText(date, Qt::ElideRight, width), fonts.date);
    if (!context.isEmpty()) {
        QFont bold = fonts.context;
        bold.setWeight(QFont::Bold);
        QList<QTextLayout::FormatRange> formats;
        for (const TextSearch::Range &hit : hits) {
            QTextCharFormat format;
            format.setFont(bold);
            formats.append({int(hit.start), int(hit.length), format});
        }
        layOutLine(lines->context, context, fonts.context, formats);
    }
    // A few screenfuls of rows: enough that scrolling back and forth and every batch of search
    // results repaint without shaping again.
    if (m_lines.size() >= 400)
        m_lines.clear();
    return **m_lines.insert(key, std::move(lines));
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
    const Fonts fonts{Theme::font(Theme::TextStyle::Body), Theme::font(Theme::TextStyle::Caption2),
                      Theme::font(Theme::TextStyle::Caption)};
    const Lines &lines = linesFor(index, content.width(), fonts);
    const int titleHeight = QFontMetrics(fonts.title).height();
    const int dateTop = content.top() + titleHeight + lineSpacing;
    const int contextTop = dateTop + QFontMetrics(fonts.date).height() + lineSpacing;

    painter->save();
    painter->setClipRect(content);
    painter->setPen(titleColor);
    lines.title.draw(painter, content.topLeft());
    painter->setPen(dateColor);
    lines.date.draw(painter, QPoint(content.left(), dateTop));
    if (!lines.context.text().isEmpty()) {
        painter->setPen(titleColor);
        lines.context.draw(painter, QPoint(content.left(), contextTop));
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

QSize ConversationDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    int height = QFontMetrics(Theme::font(Theme::TextStyle::Body)).height() + lineSpacing +
                 QFontMetrics(Theme::font(Theme::TextStyle::Caption2)).height() + 2 * verticalPadding;
    if (hasContext(index))
        height += lineSpacing + QFontMetrics(Theme::font(Theme::TextStyle::Caption)).height();
    return {option.rect.width(), height};
}

bool ConversationDelegate::hasContext(const QModelIndex &index)
{
    // Search results always carry the role, even with an empty line: their rows keep one height.
    return index.data(ConversationListModel::ContextRole).isValid();
}
