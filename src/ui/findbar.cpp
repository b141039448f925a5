#include "ui/findbar.h"

#include "ui/theme.h"

#include <QAccessible>
#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QToolButton>

using namespace Qt::StringLiterals;

FindBar::FindBar(QWidget *parent)
    : QWidget(parent)
{
    setObjectName(u"findBar"_s);
    m_field = new QLineEdit(this);
    m_field->setObjectName(u"findField"_s);
    m_field->setPlaceholderText(u"Find in conversation"_s);
    m_field->setAccessibleName(u"Find in conversation"_s);
    m_field->addAction(Theme::symbolIcon(QLatin1StringView("magnifyingglass")), QLineEdit::LeadingPosition);
    m_field->installEventFilter(this);
    connect(m_field, &QLineEdit::textEdited, this, &FindBar::textEdited);
    connect(m_field, &QLineEdit::returnPressed, this, &FindBar::nextRequested);

    m_status = new QLabel(this);
    m_status->setObjectName(u"findStatus"_s);
    m_status->setFont(Theme::font(Theme::TextStyle::Caption));
    m_status->setMinimumWidth(QFontMetrics(m_status->font()).horizontalAdvance(u"0000 of 0000"_s));
    m_status->setAlignment(Qt::AlignRight | Qt::AlignVCenter);

    m_previous = Theme::symbolButton(QLatin1StringView("chevron.up"), u"Previous match (Shift+F3)"_s,
                                     u"findPreviousButton"_s, this);
    m_next = Theme::symbolButton(QLatin1StringView("chevron.down"), u"Next match (F3)"_s, u"findNextButton"_s, this);
    m_close = Theme::symbolButton(QLatin1StringView("xmark"), u"Close find bar (Escape)"_s, u"findCloseButton"_s, this);
    connect(m_previous, &QToolButton::clicked, this, &FindBar::previousRequested);
    connect(m_next, &QToolButton::clicked, this, &FindBar::nextRequested);
    connect(m_close, &QToolButton::clicked, this, &FindBar::closeRequested);

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 6, 12, 0);
    layout->setSpacing(6);
    layout->addWidget(m_field, 1);
    layout->addWidget(m_status);
    layout->addWidget(m_previous);
    layout->addWidget(m_next);
    layout->addWidget(m_close);
    m_previous->setEnabled(false);
    m_next->setEnabled(false);
    applyColours();
}

QString FindBar::text() const
{
    return m_field->text();
}

void FindBar::setText(const QString &text)
{
    m_field->setText(text);
}

void FindBar::setStatus(const QString &status, bool canMove)
{
    m_previous->setEnabled(canMove);
    m_next->setEnabled(canMove);
    if (status == m_status->text())
        return;
    m_status->setText(status);
    m_status->setAccessibleName(status);
    // The field keeps the focus while the user types: its description is what a screen reader
    // reads out when it changes.
    m_field->setAccessibleDescription(status);
    if (m_field->hasFocus()) {
        QAccessibleEvent event(m_field, QAccessible::DescriptionChanged);
        QAccessible::updateAccessibility(&event);
    }
}

QString FindBar::status() const
{
    return m_status->text();
}

bool FindBar::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_field && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        const bool shift = key->modifiers().testFlag(Qt::ShiftModifier);
        if (key->key() == Qt::Key_Escape) {
            emit closeRequested();
            return true;
        }
        if ((key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) && shift) {
            emit previousRequested();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void FindBar::keyPressEvent(QKeyEvent *event)
{
    // From the buttons as from the field: Escape closes the bar wherever in it the focus is.
    if (event->key() == Qt::Key_Escape) {
        emit closeRequested();
        return;
    }
    QWidget::keyPressEvent(event);
}

void FindBar::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange)
        applyColours();
}

void FindBar::applyColours()
{
    Theme::setTextColour(m_status, Theme::color(Theme::Color::Secondary, palette()));
}
