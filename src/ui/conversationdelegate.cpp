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
    const QFont titleFont = Theme::font(Theme::TextStyle::Body);
    const QFont dateFont = Theme::font(Theme::TextStyle::Caption2);
    const QFontMetrics titleMetrics(titleFont);
    const QFontMetrics dateMetrics(dateFont);

    painter->save();
    painter->setFont(titleFont);
    painter->setPen(titleColor);
    const QRect titleRect(content.left(), content.top(), content.width(), titleMetrics.height());
    painter->drawText(
        titleRect, Qt::AlignLeft | Qt::AlignVCenter,
        titleMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight, titleRect.width()));
    painter->setFont(dateFont);
    painter->setPen(dateColor);
    const QRect dateRect(content.left(), titleRect.bottom() + 1 + lineSpacing, content.width(), dateMetrics.height());
    painter->drawText(dateRect, Qt::AlignLeft | Qt::AlignVCenter,
                      dateMetrics.elidedText(index.data(ConversationListModel::DateTextRole).toString(), Qt::ElideRight,
                                             dateRect.width()));
    if (hasContext(index)) {
        const QFont contextFont = Theme::font(Theme::TextStyle::Caption);
        const QRect contextRect(content.left(), dateRect.bottom() + 1 + lineSpacing, content.width(),
                                QFontMetrics(contextFont).height());
        drawContext(painter, contextRect, contextFont, index, titleColor);
    }
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

void ConversationDelegate::drawContext(QPainter *painter, const QRect &rect, const QFont &font,
                                       const QModelIndex &index, const QColor &color)
{
    const QString context = index.data(ConversationListModel::ContextRole).toString();
    if (context.isEmpty())
        return;
    const auto hits = index.data(ConversationListModel::ContextHitsRole).value<QList<TextSearch::Range>>();
    QFont bold = font;
    bold.setWeight(QFont::Bold);
    QList<QTextLayout::FormatRange> formats;
    for (const TextSearch::Range &hit : hits) {
        QTextCharFormat format;
        format.setFont(bold);
        formats.append({int(hit.start), int(hit.length), format});
    }
    QTextLayout layout(context, font);
    layout.setFormats(formats);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine line = layout.createLine();
    line.setPosition(QPointF(0, 0));
    layout.endLayout();
    painter->save();
    painter->setClipRect(rect);
    painter->setPen(color);
    layout.draw(painter, rect.topLeft());
    painter->restore();
}
