#pragma once

#include <QAbstractScrollArea>
#include <QElapsedTimer>
#include <QPointer>
#include <QScrollBar>
#include <QStyle>
#include <QStyleOptionSlider>
#include <QTimer>
#include <QUuid>
#include <QWidget>

#include <optional>
#include <vector>

class ChatViewModel;
struct ChatMessage;
class QAbstractButton;
class FocusRing;
class JumpButton;
class MessageBubble;
class QLabel;
class ReplyAnnouncer;
class ScrollController;

// The transcript's vertical scroll bar. A growing reply changes its range on every update, and a
// plain scroll bar repaints whole for each, gradients and all; once the content is many screens
// tall the handle no longer moves by a whole pixel per update, so range and value changes here
// repaint only when the bar would look different from what it shows once the turn's changes are
// made, and then only the handle's old and new places and an arrow whose end the value reached
// or left; a handle that only creeps a pixel or two shows its new place a few times a second. A
// style that draws the bar opaque has nothing behind it painted along.
class TranscriptScrollBar final : public QScrollBar
{
    Q_OBJECT

public:
    explicit TranscriptScrollBar(QWidget *parent = nullptr);

    // A handle moving at most this far is repainted at most once per creepRepaintMs.
    static constexpr int creepPixels = 2;
    static constexpr int creepRepaintMs = 250;
    // An arrow the style greys out at the end the value reached shows a change of the ends only
    // once it has held this long (at once while the handle is dragged).
    static constexpr int endSettleMs = 400;

protected:
    void sliderChange(SliderChange change) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    // What a range or value change can alter in the bar's picture: where the handle is, and, in
    // a style that greys out an arrow at its end, whether the value is at either end.
    struct Look
    {
        QRect handle;
        bool atMinimum = false;
        bool atMaximum = false;
        bool operator==(const Look &) const = default;
    };
    Look currentLook() const;
    bool endsShow() const;
    bool onlyEndsChange() const;
    QStyleOptionSlider paintOption() const;
    QImage picture(const QStyleOptionSlider &option) const; // the bar drawn on a transparent picture
    void updateOpaque();
    void repaintChanges();
    void checkAgainIn(qint64 ms);
    QRect controlRect(QStyle::SubControl control) const;

    static constexpr int endShade = 2;      // rows beyond the handle that some styles shade
    static constexpr int probeHeight = 300; // the height the style is drawn at to see what it does

    std::optional<Look> m_shown;                        // the look on screen once pending repaints are done
    mutable std::optional<bool> m_endsShow;             // whether this style marks the ends, once drawn to see
    mutable std::optional<bool> m_onlyEndsChange;       // whether a handle's change shows only near its ends
    bool m_checkPosted = false;                         // a look check waits for this turn's changes to end
    QElapsedTimer m_sinceRepaint;                       // since the handle was last repainted for a change
    QTimer m_creepTimer;                                // brings a creeping handle or a settled end up to date
    std::optional<std::pair<bool, bool>> m_endsWaiting; // ends reached or left, not yet shown
    QElapsedTimer m_endsSince;                          // since m_endsWaiting came
    bool m_endsUnsure = false; // a whole paint while ends waited: the arrows are drawn again once they settle
};

// The scrolling list of a conversation's messages, built lazily: only the bubbles near the
// visible area exist (and, hidden, a few short ones that recently left it, for when they come
// back); the others are rows with a known or estimated height. So opening a long
// conversation and resizing the window cost what is on screen, and a streamed update costs the
// one bubble that changed. Below the messages sit the red error line and a one-point bottom
// anchor whose lower edge, with the visible height, is reported to the scroll controller after
// every scroll, range change and resize.
class TranscriptArea final : public QAbstractScrollArea
{
    Q_OBJECT

public:
    TranscriptArea(ChatViewModel *chat, ScrollController *scroll, QWidget *parent = nullptr);
    ~TranscriptArea() override;

    static constexpr int stackSpacing = 12;
    static constexpr int verticalPadding = 12;
    static constexpr int errorPadding = 12;
    static constexpr int anchorHeight = 1;

    ChatViewModel *chat() const { return m_chat; }
    qsizetype messageCount() const { return qsizetype(m_rows.size()); }
    // The bubble of message index, or null while it is not built (far from the visible area).
    MessageBubble *bubbleAt(qsizetype index) const;
    // How many bubbles exist now.
    int builtBubbleCount() const;
    QLabel *errorLabel() const { return m_error; }
    // The anchor's lower edge in content coordinates (the scroll view's own, unscrolled).
    int anchorBottom() const;
    int contentHeight() const;
    // Where message index starts in content coordinates.
    int rowTop(qsizetype index) const;

    // The keyboard's place in the transcript: the message that takes the focus when the
    // transcript does, -1 when there is none (then the last message does).
    qsizetype currentMessage() const;
    // Scrolls message index into view as a user's scroll would (so auto-follow's rules hold),
    // builds its bubble and gives it the focus.
    void focusMessage(qsizetype index);

signals:
    // Emitted when the bubble of message index is made, as it comes near the visible area, before
    // it is placed and shown.
    void bubbleBuilt(qsizetype index, MessageBubble *bubble);
    // Emitted when the user asks for a new version of the last reply (its "Regenerate").
    void regenerateRequested();
    // Emitted when the user resends the message at index, edited in place to text.
    void resendRequested(qsizetype index, const QString &text);

protected:
    void resizeEvent(QResizeEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;
    void changeEvent(QEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    bool focusNextPrevChild(bool next) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    struct Row
    {
        QUuid id;
        int height = 0;
        bool measured = false;
        QPointer<MessageBubble> bubble;
    };

    void handleReset();
    void handleInserted(qsizetype index);
    void handleRemoved(qsizetype index);
    void handleChanged(qsizetype index);
    void handleReplaced(qsizetype index);
    // Offers Regenerate on the last reply only, and no steering while a reply streams.
    void syncSteering(MessageBubble *bubble, qsizetype index) const;
    void handleErrorText();
    // The message-count and last-text-length triggers, run before the layout follows the change.
    void runTriggers();

    int estimateHeight(qsizetype index) const;
    void invalidateFrom(qsizetype index);
    void updatePrefix() const;
    // Builds the bubbles near the visible area, drops the far ones, places everything and
    // updates the scroll range, keeping what the user looks at in place.
    void relayout();
    void placeRows(qsizetype from);
    void updateRange();
    void reportGeometry();
    qsizetype rowAt(int y) const;
    void remeasureAll();
    void revealRow(qsizetype index);
    void placeFocusRing();
    qsizetype indexOfBubble(const MessageBubble *bubble) const;
    MessageBubble *bubbleHolding(QWidget *widget) const;
    // Leaves the transcript for the next (or previous) control of the window.
    bool leave(bool next);
    void remeasure(MessageBubble *bubble);
    MessageBubble *makeBubble(const ChatMessage &message);
    // Bubbles of rows that left (dropped far from view, or another version shown) wait hidden for
    // their message to come back; the oldest go first.
    void putAside(MessageBubble *bubble);
    MessageBubble *takeSpare(const ChatMessage &message);
    void dropSpares();

    ChatViewModel *m_chat;
    ScrollController *m_scroll;
    std::vector<Row> m_rows;
    std::vector<QPointer<MessageBubble>> m_spares;
    mutable std::vector<int> m_tops; // content y of each row, valid below m_validTops
    mutable qsizetype m_validTops = 0;
    QLabel *m_error;
    FocusRing *m_focusRing;
    qsizetype m_lastCount = 0;
    qsizetype m_lastLength = 0;
    int m_width = -1;
    bool m_userScrolling = false;
    bool m_inRelayout = false;
    bool m_inChange = false; // a message's change is being shown; it relays out once at its end
    QUuid m_current;
};

// The transcript of a main window: the scrolling messages and, over their lower right corner
// while the transcript does not follow new content, the jump-to-bottom button. Binds itself to
// the chat view model's signals and hands its scroll bar to the scroll controller.
class TranscriptView final : public QWidget
{
    Q_OBJECT

public:
    TranscriptView(ChatViewModel *chat, ScrollController *scroll, QWidget *parent = nullptr);

    TranscriptArea *area() const { return m_area; }
    QAbstractButton *jumpButton() const;
    // Tells a screen reader about the replies streaming into this transcript.
    ReplyAnnouncer *announcer() const { return m_announcer; }

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void placeJumpButton();

    ScrollController *m_scroll;
    TranscriptArea *m_area;
    JumpButton *m_jump;
    ReplyAnnouncer *m_announcer;
};

// Puts the Markdown of the transcript's last reply on the clipboard; false when there is none.
bool copyLastReply(TranscriptArea *area);
