#include "ui/messagebubble.h"

#include "model/versions.h"
#include "ui/bandedpaint.h"
#include "ui/copyfeedback.h"
#include "ui/markdowntextview.h"
#include "ui/theme.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QImage>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPaintEvent>
#include <QPlainTextEdit>
#include <QResizeEvent>
#include <QToolButton>

#include <algorithm>

namespace {

QToolButton *makeCopyButton(QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::TabFocus);
    button->setToolTip(MessageBubble::tr("Copy Markdown"));
    button->setAccessibleName(MessageBubble::tr("Copy Markdown"));
    button->setCursor(Qt::PointingHandCursor);
    return button;
}

QToolButton *makeFooterButton(const QString &name, const char *objectName, QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(QLatin1StringView(objectName));
    button->setAutoRaise(true);
    button->setFocusPolicy(Qt::TabFocus);
    button->setToolTip(name);
    button->setAccessibleName(name);
    button->setCursor(Qt::PointingHandCursor);
    button->hide();
    return button;
}

// The editor grows with its text between these, then scrolls.
constexpr int editorMinimumLines = 2;
constexpr int editorMaximumLines = 12;

QLabel *makeLabel(QWidget *parent)
{
    auto *label = new QLabel(parent);
    label->setTextFormat(Qt::PlainText);
    return label;
}

// Places a row of parts side by side, centred on the row's middle, and returns the row's width.
int placeRow(const QList<QWidget *> &parts, QPoint origin, int rowHeight, int spacing, bool apply)
{
    int x = origin.x();
    bool first = true;
    for (QWidget *part : parts) {
        if (part->isHidden())
            continue;
        if (!first)
            x += spacing;
        first = false;
        const QSize size = part->sizeHint();
        if (apply)
            part->setGeometry(x, origin.y() + (rowHeight - size.height()) / 2, size.width(), size.height());
        x += size.width();
    }
    return x - origin.x();
}

int rowHeight(const QList<QWidget *> &parts)
{
    int height = 0;
    for (QWidget *part : parts) {
        if (!part->isHidden())
            height = std::max(height, part->sizeHint().height());
    }
    return height;
}

} // namespace

MessageBubble::MessageBubble(const ChatMessage &message, QWidget *parent)
    : QWidget(parent)
    , m_role(makeLabel(this))
    , m_usage(makeLabel(this))
    , m_headerCopy(makeCopyButton(this))
    , m_markdown(new MarkdownTextView(this))
    , m_ellipsis(makeLabel(this))
    , m_footerCopy(makeCopyButton(this))
    , m_footerLabel(makeLabel(this))
    , m_expand(new QToolButton(this))
    , m_edit(makeFooterButton(tr("Edit"), "editButton", this))
    , m_regenerate(makeFooterButton(tr("Regenerate"), "regenerateButton", this))
    , m_switcher(new QWidget(this))
    , m_previous(makeFooterButton(tr("Previous version"), "previousVersionButton", m_switcher))
    , m_version(makeLabel(m_switcher))
    , m_next(makeFooterButton(tr("Next version"), "nextVersionButton", m_switcher))
    , m_feedback(new CopyFeedback(this))
{
    // A reply growing downwards repaints only what it uncovers and the strip setMessage() marks.
    setAttribute(Qt::WA_StaticContents);
    m_ellipsis->setText(QString(QChar(0x2026)));
    connect(m_headerCopy, &QToolButton::clicked, this, &MessageBubble::copy);
    connect(m_footerCopy, &QToolButton::clicked, this, &MessageBubble::copy);
    connect(m_feedback, &CopyFeedback::copiedChanged, this, &MessageBubble::updateCopyState);
    m_expand->setObjectName(QStringLiteral("expandButton"));
    m_expand->setAutoRaise(true);
    m_expand->setFocusPolicy(Qt::TabFocus);
    m_expand->setToolButtonStyle(Qt::ToolButtonTextOnly);
    m_expand->setCursor(Qt::PointingHandCursor);
    m_expand->hide();
    connect(m_expand, &QToolButton::clicked, this, [this] { setExpanded(!m_expanded); });

    m_edit->setIcon(Theme::symbolIcon(QLatin1StringView("pencil")));
    m_regenerate->setIcon(Theme::symbolIcon(QLatin1StringView("arrow.clockwise")));
    m_regenerate->setToolTip(tr("Regenerate (Ctrl+Shift+R)"));
    m_edit->setText(tr("Edit"));
    m_regenerate->setText(tr("Regenerate"));
    for (QToolButton *button : {m_edit, m_regenerate})
        button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    connect(m_edit, &QToolButton::clicked, this, &MessageBubble::beginEditing);
    connect(m_regenerate, &QToolButton::clicked, this, &MessageBubble::regenerateRequested);

    m_switcher->setObjectName(QStringLiteral("versionSwitcher"));
    m_previous->setText(QStringLiteral("‹"));
    m_next->setText(QStringLiteral("›"));
    m_previous->show();
    m_next->show();
    m_version->setObjectName(QStringLiteral("versionLabel"));
    auto *switcher = new QHBoxLayout(m_switcher);
    switcher->setContentsMargins(0, 0, 0, 0);
    switcher->setSpacing(2);
    switcher->addWidget(m_previous);
    switcher->addWidget(m_version);
    switcher->addWidget(m_next);
    m_switcher->hide();
    connect(m_previous, &QToolButton::clicked, this,
            [this] { emit versionRequested(MessageVersioning::versionIndex(m_message) - 1); });
    connect(m_next, &QToolButton::clicked, this,
            [this] { emit versionRequested(MessageVersioning::versionIndex(m_message) + 1); });
    applyStyle();
    updateCopyState();
    // The blank message has an id of its own, so every part is set once here.
    setMessage(message);
}

QString MessageBubble::roleLabel(ChatRole role)
{
    switch (role) {
    case ChatRole::system:
        return tr("System");
    case ChatRole::user:
        return tr("You");
    case ChatRole::assistant:
        break;
    }
    return tr("Assistant");
}

QString MessageBubble::usageText(const std::optional<TokenUsage> &usage, qint64 total)
{
    const QString tokens = QString::number(total) + QStringLiteral(" tokens");
    if (usage && usage->promptTokens && usage->completionTokens) {
        return QString::number(*usage->promptTokens) + QStringLiteral("↑ ") +
               QString::number(*usage->completionTokens) + QStringLiteral("↓ · ") + tokens;
    }
    return tokens;
}

QString MessageBubble::usagePart(const std::optional<TokenUsage> &usage)
{
    const std::optional<qint64> total = displayedTokenCount(usage);
    if (!total)
        return {};
    return QStringLiteral("· ") + usageText(usage, *total);
}

QColor MessageBubble::bubbleColor(ChatRole role, const QPalette &palette)
{
    if (role == ChatRole::user)
        return Theme::withOpacity(Theme::color(Theme::Color::Accent, palette), 0.18);
    return Theme::withOpacity(Theme::color(Theme::Color::Secondary, palette), 0.12);
}

QColor MessageBubble::bodyColor() const
{
    // The nearest widget that paints a background is what the bubble's tint lies on; a bubble
    // that is a window of its own lies on its own.
    const QWidget *behind = this;
    while (!behind->isWindow() && !behind->autoFillBackground())
        behind = behind->parentWidget();
    const QBrush back = behind->palette().brush(behind->backgroundRole());
    if (back.style() != Qt::SolidPattern || back.color().alpha() != 255)
        return {};
    return paintedOver(back.color(), bubbleColor(m_message.role, palette()));
}

void MessageBubble::updateBackdrop()
{
    m_markdown->setBackdrop(bodyColor());
}

bool MessageBubble::setMessage(const ChatMessage &message)
{
    if (message == m_message)
        return false;
    const bool hadContent = hasContent();
    // A bubble not given a width yet has nothing on screen: measuring it at Qt's default size
    // would lay a long message out for nothing, and its first resize places everything.
    const bool placed = testAttribute(Qt::WA_Resized);
    const QRect before = !placed ? QRect() : m_placedWidth == width() ? m_placed.content : contentRect();
    // A streamed reply changes only its text from one update to the next: the header, the footer's
    // controls and what they tell a screen reader are set again only when what they show changed,
    // so that an update costs no name-change notices on the accessibility bus.
    const bool partsChanged = !m_partsSet || message.role != m_message.role ||
                              (message.role == ChatRole::system && message.content != m_message.content) ||
                              message.content.isEmpty() != m_message.content.isEmpty() ||
                              MessageVersioning::versionCount(message) != MessageVersioning::versionCount(m_message) ||
                              MessageVersioning::versionIndex(message) != MessageVersioning::versionIndex(m_message);
    const bool usageChanged = !m_partsSet || message.usage != m_message.usage;
    m_partsSet = true;
    m_message = message;
    const bool content = hasContent();
    if (usageChanged) {
        const QString usage = usagePart(message.usage);
        m_usage->setText(usage);
        m_usage->setHidden(usage.isEmpty());
    }
    if (partsChanged) {
        m_role->setText(roleLabel(message.role));
        updateBackdrop();
        m_headerCopy->setHidden(!content);
        m_footerCopy->setHidden(!content);
        m_footerLabel->setHidden(!content);
        m_markdown->setHidden(!content);
        m_ellipsis->setHidden(content);
        updateExpand();
        updateSteering();
        setAccessibleName(roleLabel(message.role));
    }
    if (content || hadContent)
        m_markdown->setText(shownText());
    if (!placed)
        return true;
    placeChildren();
    // A growing reply moves only the lower edge of its background: repainting just that strip
    // keeps an update's paint to what changed.
    const QRect after = m_placed.content;
    if (before.left() != after.left() || before.top() != after.top() || before.width() != after.width()) {
        update();
    } else if (before.bottom() != after.bottom()) {
        const int radius = int(cornerRadius) + 1;
        const int top = std::min(before.bottom(), after.bottom()) - radius;
        const int bottom = std::max(before.bottom(), after.bottom()) + 1;
        update(QRect(after.left(), top, after.width(), bottom - top + 1));
    }
    return true;
}

bool MessageBubble::copied() const
{
    return m_feedback->copied();
}

void MessageBubble::copy()
{
    m_feedback->copy(m_message.content);
}

void MessageBubble::updateCopyState()
{
    const QIcon icon =
        Theme::symbolIcon(m_feedback->copied() ? QLatin1StringView("checkmark") : QLatin1StringView("doc.on.doc"));
    m_headerCopy->setIcon(icon);
    m_footerCopy->setIcon(icon);
    m_footerLabel->setText(m_feedback->copied() ? tr("Copied") : tr("Copy"));
    if (m_footerLabel->isVisible())
        placeChildren();
}

void MessageBubble::setExpanded(bool expanded)
{
    if (m_expanded == expanded)
        return;
    m_expanded = expanded;
    m_markdown->setText(shownText());
    updateExpand();
    placeChildren();
    update();
    emit heightChanged();
}

QString MessageBubble::shownText() const
{
    if (m_message.role != ChatRole::system || m_expanded)
        return m_message.content;
    // Standing instructions can be long; the transcript shows their first line until asked.
    const qsizetype end = m_message.content.indexOf(u'\n');
    return end < 0 ? m_message.content : m_message.content.left(end) + QStringLiteral(" …");
}

void MessageBubble::updateExpand()
{
    const bool collapsible = m_message.role == ChatRole::system && m_message.content.contains(u'\n');
    m_expand->setHidden(!collapsible);
    m_expand->setText(m_expanded ? tr("Show less") : tr("Show all"));
    m_expand->setToolTip(m_expanded ? tr("Show the first line only") : tr("Show the whole system prompt"));
    m_expand->setAccessibleName(m_expand->text());
}

void MessageBubble::setRegenerateAvailable(bool available)
{
    if (m_regenerateAvailable == available)
        return;
    m_regenerateAvailable = available;
    updateSteering();
    placeChildren();
}

void MessageBubble::setSteeringEnabled(bool enabled)
{
    if (m_steeringEnabled == enabled)
        return;
    m_steeringEnabled = enabled;
    updateSteering();
}

void MessageBubble::updateSteering()
{
    const bool content = hasContent();
    m_edit->setHidden(!content || m_message.role != ChatRole::user || m_editing);
    m_regenerate->setHidden(!content || !m_regenerateAvailable || m_message.role != ChatRole::assistant);
    const int count = MessageVersioning::versionCount(m_message);
    const int shown = MessageVersioning::versionIndex(m_message) + 1;
    m_switcher->setHidden(!content || count < 2);
    m_version->setText(QStringLiteral("%1 / %2").arg(shown).arg(count));
    // What a screen reader says of the switcher and of each of its buttons.
    const QString where = tr("Version %1 of %2").arg(shown).arg(count);
    m_switcher->setAccessibleName(where);
    m_version->setAccessibleName(where);
    m_previous->setAccessibleDescription(where);
    m_next->setAccessibleDescription(where);
    m_switcher->adjustSize();
    for (QToolButton *button : {m_edit, m_regenerate})
        button->setEnabled(m_steeringEnabled);
    m_previous->setEnabled(m_steeringEnabled && shown > 1);
    m_next->setEnabled(m_steeringEnabled && shown < count);
}

void MessageBubble::beginEditing()
{
    if (m_message.role != ChatRole::user || m_editing || !m_steeringEnabled)
        return;
    if (!m_editor) {
        m_editor = new QPlainTextEdit(this);
        m_editor->setObjectName(QStringLiteral("messageEditor"));
        m_editor->setAccessibleName(tr("Edit message"));
        m_editor->setAccessibleDescription(tr("Return resends, Escape cancels, Shift+Return starts a new line"));
        m_editor->setFrameShape(QFrame::NoFrame);
        m_editor->setTabChangesFocus(true);
        m_editor->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        m_editor->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        m_editor->viewport()->setAutoFillBackground(false);
        m_editor->setAutoFillBackground(false);
        m_editor->installEventFilter(this);
        // A plain text layout measures its document in lines, wrapped lines counted.
        connect(m_editor->document()->documentLayout(), &QAbstractTextDocumentLayout::documentSizeChanged, this,
                [this](const QSizeF &size) {
                    // The editor grows with its text; only past the last line it grows to does it scroll.
                    m_editor->setVerticalScrollBarPolicy(
                        int(size.height()) > editorMaximumLines ? Qt::ScrollBarAsNeeded : Qt::ScrollBarAlwaysOff);
                    placeChildren();
                    update();
                    emit heightChanged();
                });
    }
    m_editing = true;
    m_editor->setPlainText(m_message.content);
    m_editor->moveCursor(QTextCursor::End);
    m_editor->show();
    m_markdown->hide();
    updateSteering();
    placeChildren();
    update();
    emit heightChanged();
    m_editor->setFocus(Qt::OtherFocusReason);
}

void MessageBubble::cancelEditing()
{
    if (m_editing)
        endEditing();
}

void MessageBubble::endEditing()
{
    const bool hadFocus = m_editor->hasFocus();
    m_editing = false;
    m_editor->hide();
    m_markdown->setHidden(!hasContent());
    updateSteering();
    placeChildren();
    update();
    emit heightChanged();
    // The focus stays on the message, where the user was, rather than jumping out of the transcript.
    if (hadFocus && m_edit->isVisible())
        m_edit->setFocus(Qt::OtherFocusReason);
}

bool MessageBubble::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_editor && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Escape) {
            endEditing();
            return true;
        }
        if ((key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) && !(key->modifiers() & Qt::ShiftModifier)) {
            const QString text = m_editor->toPlainText();
            // A blank text would send nothing: the editor stays open.
            if (text.trimmed().isEmpty())
                return true;
            endEditing();
            emit resendRequested(text);
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void MessageBubble::applyStyle()
{
    const QFont caption = Theme::font(Theme::TextStyle::Caption2);
    const QColor secondary = Theme::color(Theme::Color::Secondary, palette());
    for (QLabel *label : {m_role, m_usage, m_footerLabel, m_version}) {
        label->setFont(caption);
        QPalette pal = label->palette();
        pal.setColor(QPalette::WindowText, secondary);
        label->setPalette(pal);
    }
    QPalette pal = m_ellipsis->palette();
    pal.setColor(QPalette::WindowText, secondary);
    m_ellipsis->setPalette(pal);
    updateBackdrop();
    const int iconSize = std::max(8, caption.pixelSize());
    m_headerCopy->setIconSize(QSize(iconSize, iconSize));
    m_footerCopy->setIconSize(QSize(iconSize, iconSize));
    for (QToolButton *button : {m_expand, m_edit, m_regenerate, m_previous, m_next}) {
        button->setFont(caption);
        button->setIconSize(QSize(iconSize, iconSize));
    }
}

MessageBubble::Layout MessageBubble::layoutFor(int width) const
{
    const QList<QWidget *> header{m_role, m_usage, m_headerCopy};
    const QList<QWidget *> footer{m_footerCopy, m_footerLabel, m_expand, m_edit, m_regenerate, m_switcher};
    const int stackMax = std::max(1, width - 2 * sidePadding - oppositeGap - rowSpacing);

    const int headerWidth = placeRow(header, {}, 0, partSpacing, false);
    const int headerHeight = rowHeight(header);
    const bool content = hasContent();
    const int footerWidth = content ? placeRow(footer, {}, 0, partSpacing, false) : 0;
    const int footerHeight = content ? rowHeight(footer) : 0;

    int innerWidth = 0;
    bool fills = false;
    if (m_editing) {
        innerWidth = stackMax - 2 * contentPadding;
    } else if (content) {
        const int ideal = m_markdown->idealWidth();
        fills = ideal < 0;
        innerWidth = fills ? stackMax - 2 * contentPadding : std::min(ideal, stackMax - 2 * contentPadding);
    } else {
        innerWidth = m_ellipsis->sizeHint().width();
    }
    innerWidth = std::max(1, innerWidth);
    int innerHeight = content ? m_markdown->heightForWidth(innerWidth) : m_ellipsis->sizeHint().height();
    if (m_editing) {
        const int lines =
            std::clamp(int(m_editor->document()->size().height()), editorMinimumLines, editorMaximumLines);
        // A pixel per line and two more of slack: a line's own height may round up from the font's.
        innerHeight = lines * (m_editor->fontMetrics().lineSpacing() + 1) +
                      2 * int(m_editor->document()->documentMargin()) + 2 * m_editor->frameWidth() + 2;
    }
    const int contentWidth = innerWidth + 2 * contentPadding;
    const int stackWidth = std::min(stackMax, std::max({headerWidth, contentWidth, footerWidth}));

    const int x = m_message.role == ChatRole::user ? width - sidePadding - stackWidth : sidePadding;
    Layout layout;
    layout.header = QRect(x, 0, headerWidth, headerHeight);
    layout.content = QRect(x, headerHeight + stackSpacing, contentWidth, innerHeight + 2 * contentPadding);
    layout.height = layout.content.bottom() + 1;
    if (content) {
        layout.footer = QRect(x, layout.height + stackSpacing, footerWidth, footerHeight);
        layout.height = layout.footer.bottom() + 1;
    }
    return layout;
}

int MessageBubble::heightForWidth(int width) const
{
    return layoutFor(width).height;
}

QSize MessageBubble::sizeHint() const
{
    return {400, heightForWidth(400)};
}

QRect MessageBubble::contentRect() const
{
    return layoutFor(width()).content;
}

void MessageBubble::placeChildren()
{
    m_placed = layoutFor(width());
    m_placedWidth = width();
    const Layout &layout = m_placed;
    placeRow({m_role, m_usage, m_headerCopy}, layout.header.topLeft(), layout.header.height(), partSpacing, true);
    const QRect inner = layout.content.adjusted(contentPadding, contentPadding, -contentPadding, -contentPadding);
    if (m_editing)
        m_editor->setGeometry(inner);
    else if (hasContent())
        m_markdown->setGeometry(inner);
    else
        m_ellipsis->setGeometry(QRect(inner.topLeft(), m_ellipsis->sizeHint()));
    if (hasContent())
        placeRow({m_footerCopy, m_footerLabel, m_expand, m_edit, m_regenerate, m_switcher}, layout.footer.topLeft(),
                 layout.footer.height(), partSpacing, true);
}

void MessageBubble::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    if (event->oldSize().width() != width())
        update();
    placeChildren();
}

void MessageBubble::paintEvent(QPaintEvent *event)
{
    // A long reply's background is many screens tall, and each update exposes only a strip of it.
    // Filling the whole rounded shape would rasterise every line the window shows each time, so
    // the shape is cut to the exposed strip; a cut edge lies a radius beyond the strip, where its
    // rounded corners cannot be seen.
    const int margin = int(cornerRadius) + 2;
    const QRect content = contentRect();
    const QRect exposed = event->rect();
    QRect shape = content;
    shape.setTop(std::max(content.top(), exposed.top() - margin));
    shape.setBottom(std::min(content.bottom(), exposed.bottom() + margin));
    if (shape.isEmpty())
        return;
    QPainter painter(this);
    painter.setClipRect(exposed);
    painter.setRenderHint(QPainter::Antialiasing);
    BandedPaint::fillRoundedRect(painter, shape, cornerRadius, bubbleColor(m_message.role, palette()));
    // The message the keyboard is on, also while one of its buttons has the focus.
    const QWidget *focus = QApplication::focusWidget();
    if (focus && (focus == this || isAncestorOf(focus))) {
        QPainterPath path;
        path.addRoundedRect(QRectF(shape), cornerRadius, cornerRadius);
        const QPen ring(Theme::color(Theme::Color::Accent, palette()), 2);
        BandedPaint::inBands(painter, exposed, [&] {
            painter.setPen(ring);
            painter.drawPath(path);
        });
    }
}

void MessageBubble::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange) {
        applyStyle();
        placeChildren();
        update();
    }
    if (event->type() == QEvent::ParentChange)
        updateBackdrop();
    QWidget::changeEvent(event);
}
