#include "ui/composerfield.h"

#include "ui/bandedpaint.h"
#include "ui/composereditor.h"
#include "ui/theme.h"

#include <QAbstractTextDocumentLayout>
#include <QEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QVBoxLayout>

#include <algorithm>

ComposerField::ComposerField(QWidget *parent)
    : QWidget(parent)
    , m_editor(new ComposerEditor(this))
{
    m_editor->setObjectName(QStringLiteral("composer"));
    m_editor->setPlaceholderText(QStringLiteral("Message…"));
    m_editor->setAccessibleName(QStringLiteral("Message"));
    m_editor->setFrameShape(QFrame::NoFrame);
    m_editor->setTabChangesFocus(true);
    m_editor->setLineWrapMode(QPlainTextEdit::WidgetWidth);
    m_editor->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_editor->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_editor->document()->setDocumentMargin(0);
    // The field draws its own rounded background; the editor must not paint over it.
    m_editor->viewport()->setAutoFillBackground(false);
    m_editor->setAutoFillBackground(false);
    m_editor->installEventFilter(this);
    setFocusProxy(m_editor);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(padding, padding, padding, padding);
    layout->addWidget(m_editor);

    connect(m_editor, &QPlainTextEdit::textChanged, this, [this] {
        updateHeight();
        // Replacing the text changes the document in steps; the text is whole only after the last.
        if (!m_settingText)
            emit textChanged();
    });
    // Wrapping changes with the width, and so does the number of lines shown.
    connect(m_editor->document()->documentLayout(), &QAbstractTextDocumentLayout::documentSizeChanged, this,
            [this] { updateHeight(); });
    updateHeight();
}

QString ComposerField::text() const
{
    return m_editor->text();
}

void ComposerField::setText(const QString &text)
{
    // The length first: reading a long text out of the document costs more than a key may take.
    const bool same = text.isEmpty() ? m_editor->document()->isEmpty()
                                     : m_editor->textLength() == text.size() && m_editor->text() == text;
    if (same)
        return;
    m_settingText = true;
    m_editor->setText(text);
    m_settingText = false;
    emit textChanged();
}

bool ComposerField::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_editor && event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
            if (key->modifiers() & Qt::ShiftModifier) {
                m_editor->insertText(QStringLiteral("\n"));
            } else {
                emit submitted();
            }
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void ComposerField::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF box = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    QPainterPath path;
    path.addRoundedRect(box, cornerRadius, cornerRadius);
    const QColor fill = Theme::color(Theme::Color::TextBackground, palette());
    const QPen edge(Theme::withOpacity(Theme::color(Theme::Color::Secondary, palette()), 0.3), 1);
    // A field grown to several lines is tall enough for its edge to be shared out among threads.
    BandedPaint::inBands(painter, rect(), [&] {
        painter.fillPath(path, fill);
        painter.setPen(edge);
        painter.drawPath(path);
    });
}

void ComposerField::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::FontChange)
        updateHeight();
    QWidget::changeEvent(event);
}

void ComposerField::updateHeight()
{
    // The plain-text layout measures its document in lines, wrapped lines included.
    const int lines =
        std::clamp(int(m_editor->document()->documentLayout()->documentSize().height()), minimumLines, maximumLines);
    m_lines = lines;
    const int height = lines * m_editor->fontMetrics().lineSpacing() + 2 * m_editor->frameWidth();
    if (m_editor->height() != height || m_editor->minimumHeight() != height) {
        m_editor->setFixedHeight(height);
        setFixedHeight(height + 2 * padding);
    }
}
