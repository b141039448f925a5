#include "ui/conversationdelegate.h"

#include "ui/conversationlistmodel.h"
#include "ui/theme.h"

#include <QApplication>
#include <QFontMetrics>
#include <QPainter>

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
    painter->restore();
}

QSize ConversationDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const
{
    const int height = QFontMetrics(Theme::font(Theme::TextStyle::Body)).height() + lineSpacing +
                       QFontMetrics(Theme::font(Theme::TextStyle::Caption2)).height() + 2 * verticalPadding;
    return {option.rect.width(), height};
}
