#include "ui/transcriptview.h"

#include "chat/chatviewmodel.h"
#include "ui/bandedpaint.h"
#include "ui/messagebubble.h"
#include "ui/replyannouncer.h"
#include "ui/scrollcontroller.h"
#include "ui/theme.h"
#include "ui/transcriptaccessible.h"

#include <QAbstractButton>
#include <QApplication>
#include <QClipboard>
#include <QEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPropertyAnimation>
#include <QResizeEvent>
#include <QScrollBar>
#include <QShortcut>
#include <QStyle>
#include <QStyleOptionSlider>
#include <QTimer>
#include <QToolButton>

#include <algorithm>
#include <cstring>
#include <utility>

#ifdef __GLIBC__
#include <malloc.h>
#endif

// The round button that brings a detached transcript back to its end. It fades and grows in
// when it appears and fades and shrinks away when it goes.
class JumpButton final : public QAbstractButton
{
    Q_OBJECT
    Q_PROPERTY(qreal reveal READ reveal WRITE setReveal)

public:
    static constexpr int iconSize = 14;
    static constexpr int padding = 10;
    static constexpr int diameter = iconSize + 2 * padding;
    static constexpr int revealMs = 150;

    explicit JumpButton(QWidget *parent)
        : QAbstractButton(parent)
        , m_animation(new QPropertyAnimation(this, "reveal", this))
    {
        setFocusPolicy(Qt::TabFocus);
        setCursor(Qt::PointingHandCursor);
        setToolTip(tr("Scroll to bottom"));
        setAccessibleName(tr("Scroll to bottom"));
        setIcon(Theme::symbolIcon(QLatin1StringView("arrow.down"), Theme::Color::Primary));
        setFixedSize(diameter, diameter);
        m_animation->setDuration(revealMs);
        m_animation->setEasingCurve(QEasingCurve::OutCubic);
        connect(m_animation, &QPropertyAnimation::finished, this, [this] {
            if (m_reveal <= 0)
                hide();
        });
        hide();
    }

    qreal reveal() const { return m_reveal; }
    void setReveal(qreal reveal)
    {
        m_reveal = reveal;
        update();
    }

    // Shows or hides the button with its transition.
    void setShown(bool shown)
    {
        if (shown == m_shown)
            return;
        m_shown = shown;
        if (shown)
            show();
        m_animation->stop();
        m_animation->setStartValue(m_reveal);
        m_animation->setEndValue(shown ? 1.0 : 0.0);
        m_animation->start();
    }
    bool isShown() const { return m_shown; }

    QSize sizeHint() const override { return {diameter, diameter}; }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setOpacity(m_reveal);
        const qreal scale = 0.6 + 0.4 * m_reveal;
        painter.translate(width() / 2.0, height() / 2.0);
        painter.scale(scale, scale);
        painter.translate(-width() / 2.0, -height() / 2.0);

        // A thin, translucent disc over the transcript, like frosted glass.
        const QRectF disc = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
        QColor material = palette().color(QPalette::Window);
        material.setAlphaF(0.82f);
        const QPen edge(Theme::withOpacity(Theme::color(Theme::Color::Secondary, palette()), 0.3), 1);
        const QPen ring(Theme::color(Theme::Color::Accent, palette()), 2);
        // An antialiased disc has many spans to a row; in thin bands it stays on this thread
        // through every frame of its reveal.
        BandedPaint::inBands(
            painter, rect(),
            [&] {
                painter.setPen(edge);
                painter.setBrush(material);
                painter.drawEllipse(disc);
                if (hasFocus()) {
                    painter.setPen(ring);
                    painter.setBrush(Qt::NoBrush);
                    painter.drawEllipse(disc.adjusted(1, 1, -1, -1));
                }
            },
            8);
        icon().paint(&painter, QRect(padding, padding, iconSize, iconSize));
    }

private:
    QPropertyAnimation *m_animation;
    qreal m_reveal = 0;
    bool m_shown = false;
};

// A ring in the accent colour around the message button that has the keyboard focus: the small
// borderless buttons of a message show their focus too faintly on their own, in light and dark.
class FocusRing final : public QWidget
{
public:
    static constexpr int margin = 3;

    explicit FocusRing(QWidget *viewport)
        : QWidget(viewport)
    {
        setAttribute(Qt::WA_TransparentForMouseEvents);
        setFocusPolicy(Qt::NoFocus);
        hide();
    }

    void follow(QWidget *target)
    {
        if (!target || !target->isVisible()) {
            hide();
            return;
        }
        const QPoint topLeft = target->mapTo(parentWidget(), QPoint(0, 0));
        setGeometry(QRect(topLeft, target->size()).adjusted(-margin, -margin, margin, margin));
        show();
        raise();
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(Theme::color(Theme::Color::Accent, palette()), 2));
        painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 4, 4);
    }
};

namespace {

// How far beyond the visible area bubbles are built, and beyond which they are dropped, in
// viewport heights.
constexpr double buildMargin = 0.5;
constexpr double keepMargin = 2.0;
// After a reply ends, before freed memory is handed back.
constexpr int trimDelayMs = 1000;
// Bubbles put aside for reuse: about two screens of them, and none of a long message (its layouts
// are the memory that dropping far bubbles gives back).
constexpr std::size_t maxSpares = 40;
constexpr qsizetype maxSpareLength = 20'000;

// The width messages are laid out at: the viewport's, less the scroll bar's even while the bar is
// hidden. The bar appears a moment after the messages outgrow the view (Qt shows it from a queued
// call), and a long message laid out without it would be laid out again when it comes.
int layoutWidth(const QAbstractScrollArea *area)
{
    const QScrollBar *bar = area->verticalScrollBar();
    int width = area->viewport()->width();
    if (!bar->isVisible() && area->verticalScrollBarPolicy() == Qt::ScrollBarAsNeeded &&
        !area->style()->styleHint(QStyle::SH_ScrollBar_Transient, nullptr, bar))
        width -= bar->sizeHint().width();
    return width;
}

} // namespace

TranscriptScrollBar::TranscriptScrollBar(QWidget *parent)
    : QScrollBar(Qt::Vertical, parent)
{
    setStyle(BandedPaint::scrollBarStyle());
    m_creepTimer.setSingleShot(true);
    connect(&m_creepTimer, &QTimer::timeout, this, &TranscriptScrollBar::repaintChanges);
}

void TranscriptScrollBar::sliderChange(SliderChange change)
{
    // The transcript sets its page step again on every range update, and a followed reply first
    // grows the range and then eases the value after it: each would repaint the whole bar.
    const bool moves = change == SliderRangeChange || change == SliderValueChange || change == SliderStepsChange;
    if (!moves || !m_shown || style()->styleHint(QStyle::SH_ScrollBar_Transient, nullptr, this)) {
        QScrollBar::sliderChange(change);
        return;
    }
    // Decided once the changes of this turn are all made: a range that grows away from the value
    // and a value that follows it to the end leave the bar as it was. The check runs before the
    // window paints, which waits behind every ordinary posted event.
    if (std::exchange(m_checkPosted, true))
        return;
    QMetaObject::invokeMethod(this, &TranscriptScrollBar::repaintChanges, Qt::QueuedConnection);
}

void TranscriptScrollBar::repaintChanges()
{
    m_checkPosted = false;
    if (!m_shown)
        return;
    Look now = currentLook();
    // A handle creeping along with a growing reply is brought up to date a few times a second:
    // a pixel's move is not worth drawing the bar's gradients on every update. A larger move (the
    // user scrolling, a jump) shows at once.
    const bool small = !isSliderDown() && std::abs(now.handle.top() - m_shown->handle.top()) <= creepPixels &&
                       std::abs(now.handle.bottom() - m_shown->handle.bottom()) <= creepPixels;
    // A followed reply reaches the end and leaves it again with every line it adds: the arrow
    // greyed out there would blink a few times a second. Unless the handle is being dragged, a
    // change of the ends shows once it has held.
    const std::pair ends(now.atMinimum, now.atMaximum);
    if (!isSliderDown() && ends != std::pair(m_shown->atMinimum, m_shown->atMaximum)) {
        if (m_endsWaiting != ends) {
            m_endsWaiting = ends;
            m_endsSince.start();
        }
        if (m_endsSince.elapsed() < endSettleMs) {
            checkAgainIn(endSettleMs - m_endsSince.elapsed());
            now.atMinimum = m_shown->atMinimum;
            now.atMaximum = m_shown->atMaximum;
        }
    } else {
        m_endsWaiting.reset();
    }
    if (now == *m_shown && (!m_endsUnsure || m_endsWaiting))
        return;
    const bool creeps = small && now.atMinimum == m_shown->atMinimum && now.atMaximum == m_shown->atMaximum;
    if (creeps && m_sinceRepaint.isValid() && m_sinceRepaint.elapsed() < creepRepaintMs) {
        checkAgainIn(creepRepaintMs - m_sinceRepaint.elapsed());
        return;
    }
    if (!m_endsWaiting)
        m_creepTimer.stop();
    m_sinceRepaint.start();
    // The groove looks the same all along, so only the handle's old and new places change, with
    // the shade some styles draw a pixel beyond the handle, and an arrow greyed out at the end the
    // value reached or left. Where the handle's inside also looks the same all along, only the rows
    // its two ends passed change: early in a followed reply the whole handle is a fill large enough
    // for the paint engine to share out among its pooled threads on every update.
    const QRect &was = m_shown->handle;
    const QRect &is = now.handle;
    QRegion changed;
    if (!was.isEmpty() && !is.isEmpty() && onlyEndsChange()) {
        const auto passed = [this](int from, int to) {
            return QRect(0, std::min(from, to) - endShade, width(), std::abs(to - from) + 1 + 2 * endShade);
        };
        changed = QRegion(passed(was.top(), is.top())) + passed(was.bottom(), is.bottom());
    } else {
        changed = was.united(is).adjusted(0, -endShade, 0, endShade);
    }
    if (now.atMinimum != m_shown->atMinimum || m_endsUnsure)
        changed += controlRect(QStyle::SC_ScrollBarSubLine);
    if (now.atMaximum != m_shown->atMaximum || m_endsUnsure)
        changed += controlRect(QStyle::SC_ScrollBarAddLine);
    if (!m_endsWaiting)
        m_endsUnsure = false;
    update(changed);
    m_shown = now;
}

void TranscriptScrollBar::checkAgainIn(qint64 ms)
{
    if (!m_creepTimer.isActive() || m_creepTimer.remainingTime() > ms)
        m_creepTimer.start(int(std::max<qint64>(ms, 0)));
}

QRect TranscriptScrollBar::controlRect(QStyle::SubControl control) const
{
    QStyleOptionSlider option;
    initStyleOption(&option);
    return style()->subControlRect(QStyle::CC_ScrollBar, &option, control, this);
}

void TranscriptScrollBar::paintEvent(QPaintEvent *event)
{
    // A whole paint shows the bar as it is now; a partial one the look sliderChange() asked for,
    // or, outside the handle, what was there. A whole paint may also be a picture taken of the bar
    // rather than the screen: a creeping handle's pending repaint then still comes.
    if (QRegion(rect()).subtracted(event->region()).isEmpty()) {
        if (!m_creepTimer.isActive())
            m_shown = currentLook();
        else if (m_endsWaiting)
            m_endsUnsure = true; // the arrows may now show ends that have not held
    }
    QScrollBar::paintEvent(event);
}

void TranscriptScrollBar::resizeEvent(QResizeEvent *event)
{
    QScrollBar::resizeEvent(event);
    // What the style does is probed at a height of its own, so only a new width asks again: the
    // find bar opening or the window growing taller changes the height alone.
    if (event->oldSize().width() == width())
        return;
    m_endsShow.reset();
    m_onlyEndsChange.reset();
    updateOpaque();
}

void TranscriptScrollBar::changeEvent(QEvent *event)
{
    m_endsShow.reset();
    m_onlyEndsChange.reset();
    QScrollBar::changeEvent(event);
    if (event->type() == QEvent::StyleChange || event->type() == QEvent::PaletteChange)
        updateOpaque();
}

QStyleOptionSlider TranscriptScrollBar::paintOption() const
{
    QStyleOptionSlider option;
    initStyleOption(&option);
    // As the bar paints itself: every part drawn.
    option.subControls = QStyle::SC_All;
    option.rect = QRect(0, 0, width(), probeHeight);
    return option;
}

QImage TranscriptScrollBar::picture(const QStyleOptionSlider &option) const
{
    QImage image(option.rect.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    style()->drawComplexControl(QStyle::CC_ScrollBar, &option, &painter, this);
    return image;
}

void TranscriptScrollBar::updateOpaque()
{
    // A style that covers every pixel of the bar needs nothing behind it painted first: a moving
    // handle then repaints the bar alone, not the window's background and every widget between.
    // Whether this one does is seen by drawing the bar once on a transparent picture.
    const QImage image = picture(paintOption());
    bool opaque = !image.isNull();
    for (int y = 0; opaque && y < image.height(); ++y) {
        const auto *line = reinterpret_cast<const QRgb *>(image.constScanLine(y));
        opaque = std::all_of(line, line + image.width(), [](QRgb pixel) { return qAlpha(pixel) == 255; });
    }
    setAttribute(Qt::WA_OpaquePaintEvent, opaque);
}

bool TranscriptScrollBar::endsShow() const
{
    // Some styles grey out an arrow at its end. Whether this one does is seen by drawing the bar
    // at an end and one step short of it, where the handle cannot have moved.
    if (!m_endsShow) {
        QStyleOptionSlider option = paintOption();
        option.minimum = 0;
        option.maximum = 1'000'000;
        const auto at = [&](int value) {
            option.sliderValue = option.sliderPosition = value;
            return picture(option);
        };
        m_endsShow = at(0) != at(1) || at(option.maximum) != at(option.maximum - 1);
    }
    return *m_endsShow;
}

bool TranscriptScrollBar::onlyEndsChange() const
{
    // Seen by drawing the bar with the handle grown and then moved, away from both ends: every
    // row that differs must lie where an end of the handle passed.
    if (!m_onlyEndsChange) {
        QStyleOptionSlider option = paintOption();
        option.minimum = 0;
        option.maximum = 1000;
        const auto at = [&](int value, int pageStep) {
            option.sliderValue = option.sliderPosition = value;
            option.pageStep = pageStep;
            return std::pair(picture(option),
                             style()->subControlRect(QStyle::CC_ScrollBar, &option, QStyle::SC_ScrollBarSlider, this));
        };
        const auto endsOnly = [](const auto &a, const auto &b) {
            const auto near = [](int y, int from, int to) {
                return y >= std::min(from, to) - endShade && y <= std::max(from, to) + endShade;
            };
            for (int y = 0; y < a.first.height(); ++y) {
                const bool same =
                    !std::memcmp(a.first.constScanLine(y), b.first.constScanLine(y), size_t(a.first.bytesPerLine()));
                if (!same && !near(y, a.second.top(), b.second.top()) && !near(y, a.second.bottom(), b.second.bottom()))
                    return false;
            }
            return true;
        };
        const auto longer = at(500, 500);
        const auto shorter = at(500, 300);
        const auto moved = at(300, 300);
        m_onlyEndsChange = endsOnly(longer, shorter) && endsOnly(shorter, moved);
    }
    return *m_onlyEndsChange;
}

TranscriptScrollBar::Look TranscriptScrollBar::currentLook() const
{
    QStyleOptionSlider option;
    initStyleOption(&option);
    const QRect handle = style()->subControlRect(QStyle::CC_ScrollBar, &option, QStyle::SC_ScrollBarSlider, this);
    if (!endsShow())
        return {handle};
    return {handle, value() == minimum(), value() == maximum()};
}

TranscriptArea::TranscriptArea(ChatViewModel *chat, ScrollController *scroll, QWidget *parent)
    : QAbstractScrollArea(parent)
    , m_chat(chat)
    , m_scroll(scroll)
    , m_error(new QLabel(viewport()))
    , m_focusRing(new FocusRing(viewport()))
{
    installTranscriptAccessibility();
    setVerticalScrollBar(new TranscriptScrollBar(this));
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    setFocusPolicy(Qt::StrongFocus);
    viewport()->setBackgroundRole(QPalette::Base);
    verticalScrollBar()->setSingleStep(24);
    setAccessibleName(tr("Transcript"));

    m_error->setTextFormat(Qt::PlainText);
    m_error->setWordWrap(true);
    m_error->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_error->hide();

    QScrollBar *bar = verticalScrollBar();
    m_scroll->setProxy(bar);
    connect(bar, &QAbstractSlider::actionTriggered, this, [this, bar](int) {
        // The wheel, the keys and the scroll bar all come through here before the value moves.
        if (bar->sliderPosition() != bar->value())
            m_userScrolling = true;
    });
    connect(bar, &QAbstractSlider::valueChanged, this, [this] { reportGeometry(); });
    connect(bar, &QAbstractSlider::rangeChanged, this, [this] { reportGeometry(); });

    connect(m_chat, &ChatViewModel::messagesReset, this, &TranscriptArea::handleReset);
    connect(m_chat, &ChatViewModel::messageInserted, this, &TranscriptArea::handleInserted);
    connect(m_chat, &ChatViewModel::messageRemoved, this, &TranscriptArea::handleRemoved);
    connect(m_chat, &ChatViewModel::messageChanged, this, &TranscriptArea::handleChanged);
    connect(m_chat, &ChatViewModel::messagesReplaced, this, &TranscriptArea::handleReplaced);
    connect(m_chat, &ChatViewModel::errorTextChanged, this, &TranscriptArea::handleErrorText);
    connect(m_chat, &ChatViewModel::isStreamingChanged, this, [this] {
        for (qsizetype i = 0; i < messageCount(); ++i) {
            if (MessageBubble *bubble = m_rows[std::size_t(i)].bubble)
                syncSteering(bubble, i);
        }
#ifdef __GLIBC__
        // A long reply passes through thousands of short-lived parses and layouts; the allocator
        // would keep their freed pages resident for the rest of the session. They are handed back
        // once the reply and its transfer have wound down.
        if (!m_chat->isStreaming())
            QTimer::singleShot(trimDelayMs, this, [] { malloc_trim(0); });
#endif
    });

    // The focused message is outlined, also while one of its buttons has the focus.
    connect(qApp, &QApplication::focusChanged, this, [this](QWidget *old, QWidget *now) {
        for (QWidget *w : {old, now}) {
            if (MessageBubble *bubble = bubbleHolding(w))
                bubble->update();
        }
        placeFocusRing();
        // The window's Tab order holds every built message's buttons; coming in from outside,
        // the keyboard lands on a message rather than on some button of whichever was built last.
        MessageBubble *bubble = bubbleHolding(now);
        if (bubble && now != bubble && qobject_cast<QAbstractButton *>(now) && !bubbleHolding(old) && old != this) {
            QTimer::singleShot(0, this, [this] {
                const qsizetype current = currentMessage();
                focusMessage(current >= 0 ? current : messageCount() - 1);
            });
        }
    });

    changeEvent(nullptr);
    handleReset();
    handleErrorText();
}

TranscriptArea::~TranscriptArea()
{
    // A focused message going with the transcript moves the focus; the ring it would move is gone.
    disconnect(qApp, nullptr, this, nullptr);
    if (m_scroll && m_scroll->proxy() == verticalScrollBar())
        m_scroll->setProxy(nullptr);
}

void TranscriptArea::remeasure(MessageBubble *bubble)
{
    // Rows move; the bubble's message says which one it is.
    for (qsizetype i = messageCount() - 1; i >= 0; --i) {
        Row &row = m_rows[std::size_t(i)];
        if (row.bubble != bubble)
            continue;
        const int height = bubble->heightForWidth(m_width);
        if (height != row.height) {
            row.height = height;
            invalidateFrom(i + 1);
            relayout();
        }
        return;
    }
}

MessageBubble *TranscriptArea::bubbleAt(qsizetype index) const
{
    if (index < 0 || index >= messageCount())
        return nullptr;
    return m_rows[std::size_t(index)].bubble;
}

int TranscriptArea::builtBubbleCount() const
{
    return int(std::count_if(m_rows.begin(), m_rows.end(), [](const Row &row) { return !row.bubble.isNull(); }));
}

void TranscriptArea::updatePrefix() const
{
    const qsizetype n = messageCount();
    m_tops.resize(std::size_t(n));
    for (qsizetype i = m_validTops; i < n; ++i) {
        m_tops[std::size_t(i)] =
            i == 0 ? verticalPadding : m_tops[std::size_t(i - 1)] + m_rows[std::size_t(i - 1)].height + stackSpacing;
    }
    m_validTops = n;
}

void TranscriptArea::invalidateFrom(qsizetype index)
{
    m_validTops = std::min(m_validTops, std::max<qsizetype>(0, index));
}

int TranscriptArea::rowTop(qsizetype index) const
{
    updatePrefix();
    return m_tops[std::size_t(index)];
}

int TranscriptArea::anchorBottom() const
{
    const qsizetype n = messageCount();
    int y = n == 0 ? verticalPadding : rowTop(n - 1) + m_rows[std::size_t(n - 1)].height + stackSpacing;
    if (!m_error->isHidden())
        y += m_error->height() + stackSpacing;
    return y + anchorHeight;
}

int TranscriptArea::contentHeight() const
{
    return anchorBottom() + verticalPadding;
}

qsizetype TranscriptArea::rowAt(int y) const
{
    updatePrefix();
    if (m_tops.empty())
        return -1;
    auto it = std::upper_bound(m_tops.begin(), m_tops.end(), y);
    return std::max<qsizetype>(0, (it - m_tops.begin()) - 1);
}

int TranscriptArea::estimateHeight(qsizetype index) const
{
    // Close enough to keep the scroll bar steady until the bubble is built and measured.
    const ChatMessage &message = m_chat->messages().at(index);
    const QFontMetrics metrics(font());
    const int textWidth = std::max(40, m_width - 2 * MessageBubble::sidePadding - MessageBubble::oppositeGap -
                                           MessageBubble::rowSpacing - 2 * MessageBubble::contentPadding);
    const qsizetype chars = message.content.size();
    const int lineHeight = metrics.lineSpacing() + 1;
    constexpr qsizetype tallest = 1'000'000;
    // Line breaks are counted only as far as they can still matter: past the tallest estimate a
    // message of megabytes would be read whole for nothing.
    const qsizetype mostLines = tallest / lineHeight + 1;
    qsizetype lines = chars * metrics.averageCharWidth() / textWidth;
    for (qsizetype at = message.content.indexOf(QLatin1Char('\n')); at >= 0 && lines < mostLines;
         at = message.content.indexOf(QLatin1Char('\n'), at + 1))
        ++lines;
    lines = std::max<qsizetype>(1, lines);
    const int chrome = 2 * MessageBubble::contentPadding + 2 * (metrics.height() + MessageBubble::stackSpacing);
    return chrome + int(std::min<qsizetype>(lines * lineHeight, tallest));
}

void TranscriptArea::putAside(MessageBubble *bubble)
{
    if (!bubble)
        return;
    if (bubble->isEditing() || bubble->message().content.size() > maxSpareLength) {
        delete bubble;
        return;
    }
    bubble->hide();
    m_spares.push_back(bubble);
    if (m_spares.size() > maxSpares) {
        delete m_spares.front();
        m_spares.erase(m_spares.begin());
    }
}

MessageBubble *TranscriptArea::takeSpare(const ChatMessage &message)
{
    for (auto it = m_spares.begin(); it != m_spares.end(); ++it) {
        MessageBubble *bubble = *it;
        if (!bubble || bubble->message().id != message.id)
            continue;
        m_spares.erase(it);
        bubble->setMessage(message);
        return bubble;
    }
    return nullptr;
}

void TranscriptArea::dropSpares()
{
    for (const QPointer<MessageBubble> &bubble : m_spares)
        delete bubble;
    m_spares.clear();
}

void TranscriptArea::handleReset()
{
    for (Row &row : m_rows)
        delete row.bubble;
    m_rows.clear();
    dropSpares();
    const QList<ChatMessage> &messages = m_chat->messages();
    m_rows.resize(std::size_t(messages.size()));
    for (qsizetype i = 0; i < messages.size(); ++i) {
        m_rows[std::size_t(i)].id = messages.at(i).id;
        m_rows[std::size_t(i)].height = estimateHeight(i);
    }
    m_validTops = 0;
    runTriggers();
    // Another conversation opens at its end, so only its last messages are ever built.
    updatePrefix();
    updateRange();
    verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    relayout();
}

void TranscriptArea::handleInserted(qsizetype index)
{
    runTriggers();
    Row row;
    row.id = m_chat->messages().at(index).id;
    row.height = estimateHeight(index);
    m_rows.insert(m_rows.begin() + index, row);
    invalidateFrom(index);
    relayout();
}

void TranscriptArea::handleRemoved(qsizetype index)
{
    runTriggers();
    delete m_rows[std::size_t(index)].bubble;
    m_rows.erase(m_rows.begin() + index);
    invalidateFrom(index);
    relayout();
}

void TranscriptArea::handleChanged(qsizetype index)
{
    // Following first: the geometry reports of this very growth then fall into the scroll's
    // own window and cannot detach the transcript by themselves. The follow's scroll moves what is
    // shown; placing and building what came into view waits for the one relayout below.
    m_inChange = true;
    runTriggers();
    m_inChange = false;
    Row &row = m_rows[std::size_t(index)];
    const ChatMessage &message = m_chat->messages().at(index);
    if (row.bubble) {
        row.bubble->setMessage(message);
        const int height = row.bubble->heightForWidth(m_width);
        if (height != row.height) {
            row.height = height;
            invalidateFrom(index + 1);
        }
    } else {
        row.height = estimateHeight(index);
        invalidateFrom(index + 1);
    }
    relayout();
}

void TranscriptArea::handleReplaced(qsizetype index)
{
    // Another version in place of the messages from index on: the message the user switched keeps
    // its place on screen, and no follow-the-end rule applies (nothing was sent).
    const QList<ChatMessage> &messages = m_chat->messages();
    QScrollBar *bar = verticalScrollBar();
    const bool atEnd = bar->value() >= bar->maximum();
    const int offset = index < messageCount() ? rowTop(index) - bar->value() : 0;
    // The keyboard stays where it was: on the same control of the message now shown in its place.
    QWidget *focus = QApplication::focusWidget();
    MessageBubble *holder = bubbleHolding(focus);
    const bool focusHere = holder && indexOfBubble(holder) >= index;
    const QString control = focusHere && holder == bubbleAt(index) && focus != holder ? focus->objectName() : QString();
    const bool currentHere = currentMessage() >= index;
    // Flipping back and forth between versions shows the same messages again: their bubbles are
    // kept aside rather than built anew each time.
    for (std::size_t i = std::size_t(index); i < m_rows.size(); ++i)
        putAside(m_rows[i].bubble);
    m_rows.resize(std::size_t(messages.size()));
    for (qsizetype i = index; i < messages.size(); ++i) {
        Row &row = m_rows[std::size_t(i)];
        row = Row();
        row.id = messages.at(i).id;
        row.height = estimateHeight(i);
    }
    invalidateFrom(index);
    m_lastCount = messages.size();
    m_lastLength = messages.isEmpty() ? 0 : messages.last().content.size();
    updatePrefix();
    updateRange();
    if (atEnd)
        bar->setValue(bar->maximum());
    else if (index < messageCount())
        bar->setValue(rowTop(index) - offset);
    relayout();
    if (index >= messageCount())
        return;
    if (currentHere)
        m_current = m_rows[std::size_t(index)].id;
    if (!focusHere)
        return;
    focusMessage(index);
    MessageBubble *shown = bubbleAt(index);
    QWidget *target = shown && !control.isEmpty() ? shown->findChild<QWidget *>(control) : nullptr;
    // At either end the switcher's arrow that led there is disabled; its other arrow takes over.
    if (target == shown->previousVersionButton() && !target->isEnabled())
        target = shown->nextVersionButton();
    else if (target == shown->nextVersionButton() && !target->isEnabled())
        target = shown->previousVersionButton();
    if (target && target->isVisibleTo(shown) && target->isEnabled())
        target->setFocus(Qt::OtherFocusReason);
}

void TranscriptArea::syncSteering(MessageBubble *bubble, qsizetype index) const
{
    bubble->setSteeringEnabled(!m_chat->isStreaming());
    bubble->setRegenerateAvailable(index == messageCount() - 1 && m_chat->canRegenerate());
}

void TranscriptArea::handleErrorText()
{
    const std::optional<QString> text = m_chat->errorText();
    m_error->setText(text.value_or(QString()));
    m_error->setHidden(!text);
    if (text)
        m_error->resize(m_width - 2 * errorPadding, m_error->heightForWidth(m_width - 2 * errorPadding));
    relayout();
}

void TranscriptArea::runTriggers()
{
    const QList<ChatMessage> &messages = m_chat->messages();
    const qsizetype count = messages.size();
    const qsizetype length = count ? messages.last().content.size() : 0;
    const bool countChanged = count != m_lastCount;
    const bool lengthChanged = length != m_lastLength;
    m_lastCount = count;
    m_lastLength = length;
    if (m_scroll->contentChangeInProgress())
        return;
    if (countChanged) {
        m_scroll->scrollToBottom(true);
        return;
    }
    if (!lengthChanged)
        return;
    // While a reply streams its growth is followed only by a transcript that is following.
    if (!m_chat->isStreaming())
        m_scroll->scrollToBottom(true);
    else if (m_scroll->autoScroll())
        m_scroll->followGrowth();
}

void TranscriptArea::updateRange()
{
    QScrollBar *bar = verticalScrollBar();
    const int visible = viewport()->height();
    bar->setPageStep(std::max(1, visible));
    bar->setRange(0, std::max(0, contentHeight() - visible));
}

void TranscriptArea::relayout()
{
    if (m_inRelayout || m_width <= 0)
        return;
    m_inRelayout = true;
    QScrollBar *bar = verticalScrollBar();
    const int visible = std::max(1, viewport()->height());
    const QList<ChatMessage> &messages = m_chat->messages();

    // Bubbles built here replace estimates with real heights; what the user looks at stays put:
    // the end when the view was at its end, otherwise the first visible message.
    for (int pass = 0; pass < 4; ++pass) {
        updatePrefix();
        updateRange();
        const int value = bar->value();
        const bool atEnd = value >= bar->maximum();
        const qsizetype anchorRow = rowAt(value);
        const int anchorOffset = anchorRow >= 0 ? value - rowTop(anchorRow) : 0;

        const qsizetype first = rowAt(int(value - visible * buildMargin));
        const qsizetype last = rowAt(int(value + visible * (1 + buildMargin)));
        bool changed = false;
        for (qsizetype i = std::max<qsizetype>(0, first); i >= 0 && i <= last; ++i) {
            Row &row = m_rows[std::size_t(i)];
            if (row.bubble)
                continue;
            row.bubble = takeSpare(messages.at(i));
            if (!row.bubble)
                row.bubble = makeBubble(messages.at(i));
            syncSteering(row.bubble, i);
            emit bubbleBuilt(i, row.bubble);
            const int height = row.bubble->heightForWidth(m_width);
            row.bubble->setGeometry(0, rowTop(i) - value, m_width, height);
            row.bubble->show();
            row.measured = true;
            if (height != row.height) {
                row.height = height;
                invalidateFrom(i + 1);
                changed = true;
            }
        }
        if (!changed)
            break;
        updatePrefix();
        updateRange();
        if (atEnd)
            bar->setValue(bar->maximum());
        else if (anchorRow >= 0)
            bar->setValue(rowTop(anchorRow) + anchorOffset);
    }

    // Far bubbles go, and with them their layouts and highlighted code; the last few short ones wait
    // aside for a scroll back.
    const int value = bar->value();
    const int keepTop = int(value - visible * keepMargin);
    const int keepBottom = int(value + visible * (1 + keepMargin));
    for (qsizetype i = 0; i < messageCount(); ++i) {
        Row &row = m_rows[std::size_t(i)];
        if (!row.bubble)
            continue;
        const int top = rowTop(i);
        // A message being edited keeps its editor, and the text typed in it, while out of sight.
        if ((top + row.height < keepTop || top > keepBottom) && !row.bubble->isEditing())
            putAside(std::exchange(row.bubble, nullptr));
        else
            syncSteering(row.bubble, i);
    }
    placeRows(0);
    m_inRelayout = false;
    reportGeometry();
}

MessageBubble *TranscriptArea::makeBubble(const ChatMessage &message)
{
    auto *bubble = new MessageBubble(message, viewport());
    bubble->installEventFilter(this);
    connect(bubble, &MessageBubble::heightChanged, this, [this, bubble] { remeasure(bubble); });
    // Queued: each of these replaces the message, and with it the bubble that asked, which
    // must first return from the click or key press that asked.
    connect(
        bubble, &MessageBubble::regenerateRequested, bubble, [this] { emit regenerateRequested(); },
        Qt::QueuedConnection);
    connect(
        bubble, &MessageBubble::resendRequested, bubble,
        [this, bubble](const QString &text) {
            if (const qsizetype at = indexOfBubble(bubble); at >= 0)
                emit resendRequested(at, text);
        },
        Qt::QueuedConnection);
    connect(
        bubble, &MessageBubble::versionRequested, bubble,
        [this, bubble](int target) {
            if (const qsizetype at = indexOfBubble(bubble); at >= 0)
                m_chat->showVersion(at, target);
        },
        Qt::QueuedConnection);
    return bubble;
}

void TranscriptArea::placeFocusRing()
{
    QWidget *focus = QApplication::focusWidget();
    const bool onButton = qobject_cast<QAbstractButton *>(focus) && bubbleHolding(focus);
    m_focusRing->follow(onButton ? focus : nullptr);
}

void TranscriptArea::placeRows(qsizetype from)
{
    const int value = verticalScrollBar()->value();
    for (qsizetype i = from; i < messageCount(); ++i) {
        Row &row = m_rows[std::size_t(i)];
        if (row.bubble)
            row.bubble->setGeometry(0, rowTop(i) - value, m_width, row.height);
    }
    if (!m_error->isHidden()) {
        const qsizetype n = messageCount();
        const int top = n == 0 ? verticalPadding : rowTop(n - 1) + m_rows[std::size_t(n - 1)].height + stackSpacing;
        m_error->setGeometry(errorPadding, top - value, m_width - 2 * errorPadding, m_error->height());
    }
    placeFocusRing();
}

void TranscriptArea::reportGeometry()
{
    if (m_inRelayout)
        return;
    m_scroll->setViewportHeight(viewport()->height());
    m_scroll->setBottomOffset(anchorBottom() - verticalScrollBar()->value());
    const bool streaming = m_chat->isStreaming();
    if (m_userScrolling) {
        m_userScrolling = false;
        m_scroll->userDidScroll(streaming);
    } else {
        m_scroll->scrollDidChange(streaming);
    }
}

void TranscriptArea::remeasureAll()
{
    for (qsizetype i = 0; i < messageCount(); ++i) {
        Row &row = m_rows[std::size_t(i)];
        row.height = row.bubble ? row.bubble->heightForWidth(m_width) : estimateHeight(i);
    }
    if (!m_error->isHidden())
        m_error->resize(m_width - 2 * errorPadding, m_error->heightForWidth(m_width - 2 * errorPadding));
    m_validTops = 0;
}

qsizetype TranscriptArea::currentMessage() const
{
    if (m_current.isNull())
        return -1;
    for (qsizetype i = 0; i < messageCount(); ++i) {
        if (m_rows[std::size_t(i)].id == m_current)
            return i;
    }
    return -1;
}

void TranscriptArea::revealRow(qsizetype index)
{
    QScrollBar *bar = verticalScrollBar();
    // Twice: the first scroll may build the bubble and replace its estimated height.
    for (int pass = 0; pass < 2; ++pass) {
        const int visible = viewport()->height();
        const int top = rowTop(index) - stackSpacing;
        const int bottom = rowTop(index) + m_rows[std::size_t(index)].height + stackSpacing;
        const int value = bar->value();
        int target = value;
        if (bottom > value + visible)
            target = bottom - visible;
        // A message taller than the view shows its beginning.
        if (top < target)
            target = top;
        target = std::clamp(target, 0, bar->maximum());
        if (target == value)
            break;
        m_userScrolling = true;
        bar->setValue(target);
    }
    relayout();
}

void TranscriptArea::focusMessage(qsizetype index)
{
    if (index < 0 || index >= messageCount())
        return;
    revealRow(index);
    if (MessageBubble *bubble = bubbleAt(index)) {
        m_current = m_rows[std::size_t(index)].id;
        bubble->setFocus(Qt::OtherFocusReason);
    }
}

qsizetype TranscriptArea::indexOfBubble(const MessageBubble *bubble) const
{
    for (qsizetype i = 0; i < messageCount(); ++i) {
        if (m_rows[std::size_t(i)].bubble == bubble)
            return i;
    }
    return -1;
}

MessageBubble *TranscriptArea::bubbleHolding(QWidget *widget) const
{
    for (QWidget *w = widget; w && w != this; w = w->parentWidget()) {
        if (auto *bubble = qobject_cast<MessageBubble *>(w))
            return bubble->parentWidget() == viewport() ? bubble : nullptr;
    }
    return nullptr;
}

void TranscriptArea::focusInEvent(QFocusEvent *event)
{
    QAbstractScrollArea::focusInEvent(event);
    // Arriving by keyboard lands on a message: the one last visited, else the newest. On the next
    // turn, so that a screen reader hears of the transcript first and of the message last.
    if (event->reason() != Qt::MouseFocusReason && messageCount() > 0) {
        QTimer::singleShot(0, this, [this] {
            if (!hasFocus() || messageCount() == 0)
                return;
            const qsizetype current = currentMessage();
            focusMessage(current >= 0 ? current : messageCount() - 1);
        });
    }
}

bool TranscriptArea::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::KeyPress) {
        auto *bubble = qobject_cast<MessageBubble *>(watched);
        const qsizetype index = bubble ? indexOfBubble(bubble) : -1;
        if (index >= 0) {
            auto *key = static_cast<QKeyEvent *>(event);
            if (key->modifiers() & ~Qt::KeypadModifier)
                return QAbstractScrollArea::eventFilter(watched, event);
            switch (key->key()) {
            case Qt::Key_Up:
                focusMessage(std::max<qsizetype>(0, index - 1));
                return true;
            case Qt::Key_Down:
                focusMessage(std::min(messageCount() - 1, index + 1));
                return true;
            case Qt::Key_Home:
                focusMessage(0);
                return true;
            case Qt::Key_End:
                focusMessage(messageCount() - 1);
                return true;
            default:
                break;
            }
        }
    }
    return QAbstractScrollArea::eventFilter(watched, event);
}

bool TranscriptArea::focusNextPrevChild(bool next)
{
    QWidget *focus = QApplication::focusWidget();
    MessageBubble *bubble = bubbleHolding(focus);
    if (!bubble)
        return QAbstractScrollArea::focusNextPrevChild(next);
    // Tab walks the focused message, then its buttons as they read (top to bottom, left to
    // right); past either end it leaves the transcript, never wandering into other messages.
    QList<QWidget *> stops;
    for (QWidget *w : bubble->findChildren<QWidget *>()) {
        if (w->isVisibleTo(bubble) && w->isEnabled() && (w->focusPolicy() & Qt::TabFocus))
            stops.append(w);
    }
    const auto placeOf = [bubble](QWidget *w) { return QRect(w->mapTo(bubble, QPoint(0, 0)), w->size()); };
    // Parts of one row are centred on it, so a taller one starts higher: rows are told apart by
    // not overlapping, and within a row the order is left to right.
    std::stable_sort(stops.begin(), stops.end(), [&](QWidget *a, QWidget *b) {
        const QRect ra = placeOf(a);
        const QRect rb = placeOf(b);
        if (ra.bottom() < rb.top() || rb.bottom() < ra.top())
            return ra.top() < rb.top();
        return ra.left() < rb.left();
    });
    stops.prepend(bubble);
    qsizetype at = stops.indexOf(focus);
    if (at < 0)
        at = 0;
    const qsizetype to = at + (next ? 1 : -1);
    if (to < 0 || to >= stops.size())
        return leave(next);
    stops.at(to)->setFocus(next ? Qt::TabFocusReason : Qt::BacktabFocusReason);
    return true;
}

bool TranscriptArea::leave(bool next)
{
    const auto inside = [this](QWidget *w) { return w == this || isAncestorOf(w); };
    QWidget *w = this;
    do {
        w = next ? w->nextInFocusChain() : w->previousInFocusChain();
        if (!inside(w) && w->isVisible() && w->isEnabled() && (w->focusPolicy() & Qt::TabFocus) &&
            w->window() == window()) {
            w->setFocus(next ? Qt::TabFocusReason : Qt::BacktabFocusReason);
            return true;
        }
    } while (w != this);
    return false;
}

void TranscriptArea::resizeEvent(QResizeEvent *event)
{
    QAbstractScrollArea::resizeEvent(event);
    const int width = layoutWidth(this);
    if (width != m_width) {
        // Keep the same message at the top of the view across the new wrapping.
        QScrollBar *bar = verticalScrollBar();
        const bool atEnd = bar->value() >= bar->maximum();
        const qsizetype anchorRow = rowAt(bar->value());
        m_width = width;
        remeasureAll();
        updateRange();
        if (atEnd)
            bar->setValue(bar->maximum());
        else if (anchorRow >= 0)
            bar->setValue(rowTop(anchorRow));
    }
    relayout();
}

void TranscriptArea::scrollContentsBy(int, int dy)
{
    if (m_inRelayout)
        return;
    viewport()->scroll(0, dy);
    if (!m_inChange)
        relayout();
}

void TranscriptArea::changeEvent(QEvent *event)
{
    if (!event || event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange) {
        m_error->setFont(Theme::font(Theme::TextStyle::Callout));
        QPalette pal = m_error->palette();
        // The label sits on the transcript's Base background, where Qt draws with Text, not WindowText.
        const QColor red = Theme::color(Theme::Color::Red, palette());
        pal.setColor(QPalette::WindowText, red);
        pal.setColor(QPalette::Text, red);
        m_error->setPalette(pal);
    }
    if (!event)
        return;
    if (event->type() == QEvent::FontChange && m_width > 0) {
        remeasureAll();
        relayout();
    }
    QAbstractScrollArea::changeEvent(event);
}

TranscriptView::TranscriptView(ChatViewModel *chat, ScrollController *scroll, QWidget *parent)
    : QWidget(parent)
    , m_scroll(scroll)
    , m_area(new TranscriptArea(chat, scroll, this))
    , m_jump(new JumpButton(this))
    , m_announcer(new ReplyAnnouncer(chat, this))
{
    setFocusProxy(m_area);
    connect(m_jump, &QAbstractButton::clicked, this, [this] {
        m_scroll->setAutoScroll(true);
        m_scroll->scrollToBottom(true);
    });
    connect(m_scroll, &ScrollController::autoScrollChanged, this,
            [this] { m_jump->setShown(!m_scroll->autoScroll()); });
    m_jump->setShown(!m_scroll->autoScroll());

    auto *copyReply = new QShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C), this);
    copyReply->setContext(Qt::WindowShortcut);
    connect(copyReply, &QShortcut::activated, this, [this] { copyLastReply(m_area); });
}

bool copyLastReply(TranscriptArea *area)
{
    const QList<ChatMessage> &messages = area->chat()->messages();
    for (qsizetype i = messages.size() - 1; i >= 0; --i) {
        if (messages.at(i).role != ChatRole::assistant || messages.at(i).content.isEmpty())
            continue;
        // A built bubble shows its check mark, as after a press of its own button.
        if (MessageBubble *bubble = area->bubbleAt(i)) {
            bubble->copy();
        } else {
            QClipboard *clipboard = QGuiApplication::clipboard();
            clipboard->clear();
            clipboard->setText(messages.at(i).content);
        }
        return true;
    }
    return false;
}

QAbstractButton *TranscriptView::jumpButton() const
{
    return m_jump;
}

void TranscriptView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_area->setGeometry(rect());
    placeJumpButton();
}

void TranscriptView::placeJumpButton()
{
    constexpr int margin = 12;
    // Clear of the scroll bar, so both stay usable.
    const int bar = m_area->verticalScrollBar()->isVisible() ? m_area->verticalScrollBar()->width() : 0;
    m_jump->move(width() - bar - margin - m_jump->width(), height() - margin - m_jump->height());
    m_jump->raise();
}

#include "transcriptview.moc"
