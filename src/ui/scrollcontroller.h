#pragma once

#include "transport/chatstream.h"

#include <QObject>
#include <QPointer>

#include <functional>
#include <limits>
#include <optional>
#include <utility>

class QAbstractSlider;
class QTimer;
class QVariantAnimation;

// Decides when a main window's transcript follows new content to the bottom (auto-follow) and
// when it leaves the user's scroll position alone. One per main window, owned by it; main thread
// only.
//
// The transcript reports its geometry (bottomOffset: the lower edge of the content in the
// viewport's coordinates; viewportHeight: the visible height) after every scroll or layout
// change and then calls scrollDidChange(). While a content change is in progress (from
// beginContentChange() until 0.75 s after the matching endContentChangeSoon()), and for a short
// while after each of the program's own scrolls, those reports are ignored: positions measured
// while the content is being swapped say nothing about what the user wants. A scroll the user
// makes is never ignored for the program's scrolls (userDidScroll()).
//
// Deferred steps carry a token: a step of an older content change never ends a newer one.
class ScrollController final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ScrollController)
    Q_PROPERTY(bool autoScroll READ autoScroll WRITE setAutoScroll NOTIFY autoScrollChanged)

public:
    // Distance from the end of the content, in points, within which the end counts as visible.
    static constexpr double nearThreshold = 64;
    // Shipped delays and windows, in milliseconds.
    static constexpr int contentChangeSettleMs = 750;
    static constexpr int animatedScrollWindowMs = 350;
    static constexpr int plainScrollWindowMs = 150;
    static constexpr int scrollAnimationMs = 150;
    // How long followGrowth() waits for the next update before it takes a step by itself: half
    // as long again as the gap between a slow stream's updates (its network reads), so that the
    // timer steps only when the updates really pause and never just ahead of the next update,
    // which would cost a repaint of its own.
    static constexpr int followIdleStepMs = ChatStream::readIntervalMs * 3 / 2;

    explicit ScrollController(QObject *parent = nullptr);
    ~ScrollController() override;

    bool autoScroll() const { return m_autoScroll; }
    void setAutoScroll(bool autoScroll);

    double bottomOffset() const { return m_bottomOffset; }
    void setBottomOffset(double offset) { m_bottomOffset = offset; }
    double viewportHeight() const { return m_viewportHeight; }
    void setViewportHeight(double height) { m_viewportHeight = height; }

    // The transcript's vertical scroll bar: scrolling to the bottom moves it to its maximum. Not
    // owned; absent until the transcript exists, and scrollToBottom() does nothing without it.
    void setProxy(QAbstractSlider *proxy);
    QAbstractSlider *proxy() const;

    // Marks the start of a wholesale change of the content and returns its token.
    qint64 beginContentChange();
    // Ends the content change of `token` after the settle delay, unless a newer one began.
    void endContentChangeSoon(qint64 token);
    bool contentChangeInProgress() const { return m_debounceActive; }

    // Re-evaluates autoScroll from the last reported geometry; `streaming` is whether a reply is
    // streaming now. Ignored during a content change and during the program's own scrolls.
    void scrollDidChange(bool streaming);
    // The same for a scroll the user made (wheel, keys, scroll bar): it stops the program's
    // running scroll and is evaluated even inside the program's scroll window.
    void userDidScroll(bool streaming);
    // Scrolls the transcript so that its end meets the lower edge of the visible area.
    void scrollToBottom(bool animated);
    // The animated scroll to the end for one update of a streaming reply. It eases out over the
    // same 0.15 s, but moves only with the reply's own updates (at most 20 a second), so that an
    // update and its scroll cost the window one repaint instead of one per screen refresh; if the
    // updates pause, a timer takes the remaining steps. A smooth scroll already running is left to
    // follow the end by itself.
    void followGrowth();

    // The main window's reactions.
    // Right after the chat view model has activated the newly selected conversation; `token` is
    // the one beginContentChange() returned before the activation.
    void conversationSwitched(qint64 token);
    // The chat view model's stream-end callback.
    void streamEnded();
    // When the user sends a message, before the view model starts the turn.
    void messageSent();

    // Test seams: the clock (milliseconds on a monotonic scale) and the settle delay. An empty
    // clock restores the real one.
    void setClock(std::function<qint64()> msecsNow);
    void setContentChangeSettleMs(int ms);

signals:
    // Emitted when autoScroll changes.
    void autoScrollChanged();

private:
    void evaluate(bool streaming);
    void cancelDebounce();
    void stopAnimation();
    void stepFollow();

    bool m_autoScroll = true;
    double m_bottomOffset = 0;
    double m_viewportHeight = 0;
    QPointer<QAbstractSlider> m_proxy;
    QTimer *m_debounce = nullptr; // the pending end of a content change
    bool m_debounceActive = false;
    qint64 m_programmaticScrollUntil = std::numeric_limits<qint64>::min();
    qint64 m_beginToken = 0;
    qint64 m_scrollSwapToken = 0;
    std::function<qint64()> m_clock;
    int m_settleMs = contentChangeSettleMs;
    QVariantAnimation *m_animation = nullptr;
    // The ease of followGrowth(): where and when it began (nullopt when none runs), and the timer
    // that takes its steps while no update comes.
    std::optional<std::pair<int, qint64>> m_follow;
    QTimer *m_followTimer = nullptr;
};
