#pragma once

#include "model/chatmessage.h"

#include <QWidget>

#include <optional>

class CopyFeedback;
class MarkdownTextView;
class QLabel;
class QPlainTextEdit;
class QToolButton;

// One message of the transcript: a header with the speaker and the token usage, the body
// rendered as Markdown on a tinted rounded background, and a footer with a copy control. The
// user's messages sit at the right edge, every other role at the left; no bubble comes closer
// than 40 points to the opposite edge. The bubble takes the whole width of its row and places
// itself within it.
//
// A bubble is kept while its message changes (streamed text, usage arriving): setMessage()
// updates it in place, so its copied state and its blocks' views survive.
//
// The footer also carries what steers the conversation: "Edit" on the user's messages (the text
// opens in place: Return resends, Escape cancels, Shift+Return breaks the line), "Regenerate" where
// the transcript offers it, and "‹ 2 / 2 ›" on a message with several versions. The bubble only
// asks; its owner decides (regenerateRequested, resendRequested, versionRequested).
class MessageBubble final : public QWidget
{
    Q_OBJECT

public:
    explicit MessageBubble(const ChatMessage &message, QWidget *parent = nullptr);

    // Returns whether anything shown changed.
    bool setMessage(const ChatMessage &message);
    const ChatMessage &message() const { return m_message; }

    // "System", "You" or "Assistant".
    static QString roleLabel(ChatRole role);
    // "12↑ 34↓ · 46 tokens" when both counts are known, otherwise "46 tokens".
    static QString usageText(const std::optional<TokenUsage> &usage, qint64 total);
    // The header's usage part ("· " and the usage text), empty when nothing is to be shown.
    static QString usagePart(const std::optional<TokenUsage> &usage);
    static QColor bubbleColor(ChatRole role, const QPalette &palette);
    // What the window shows inside the rounded background: the bubble's tint over the solid colour
    // behind the bubble, exactly as painted; invalid when what is behind is not one solid colour.
    QColor bodyColor() const;

    bool copied() const;
    // Puts the message's raw Markdown on the clipboard.
    void copy();

    int heightForWidth(int width) const override;
    bool hasHeightForWidth() const override { return true; }
    QSize sizeHint() const override;
    // The rounded content area in the bubble's coordinates.
    QRect contentRect() const;

    QLabel *roleLabelWidget() const { return m_role; }
    QLabel *usageLabel() const { return m_usage; }
    QToolButton *headerCopyButton() const { return m_headerCopy; }
    QToolButton *footerCopyButton() const { return m_footerCopy; }
    QLabel *footerLabel() const { return m_footerLabel; }
    MarkdownTextView *markdownView() const { return m_markdown; }
    QLabel *ellipsisLabel() const { return m_ellipsis; }
    QToolButton *expandButton() const { return m_expand; }
    QToolButton *editButton() const { return m_edit; }
    QToolButton *regenerateButton() const { return m_regenerate; }
    // The version switcher, named "Version 2 of 2"; hidden while the message has one version.
    QWidget *versionSwitcher() const { return m_switcher; }
    QToolButton *previousVersionButton() const { return m_previous; }
    QToolButton *nextVersionButton() const { return m_next; }
    QLabel *versionLabel() const { return m_version; }
    // The in-place editor, made the first time editing begins.
    QPlainTextEdit *editor() const { return m_editor; }

    // Offers "Regenerate" on this bubble (a reply only); off by default.
    void setRegenerateAvailable(bool available);
    // Whether "Edit", "Regenerate" and the version buttons may be used now (not while a reply streams).
    void setSteeringEnabled(bool enabled);
    // Opens the text of a user message for editing in place; does nothing for other roles.
    void beginEditing();
    void cancelEditing();
    bool isEditing() const { return m_editing; }

    // A system message shows its first line only until it is opened ("Show all").
    bool isExpanded() const { return m_expanded; }
    void setExpanded(bool expanded);

    static constexpr int sidePadding = 12;
    static constexpr int oppositeGap = 40;
    static constexpr int rowSpacing = 8; // between the bubble and the space on its other side
    static constexpr int stackSpacing = 4;
    static constexpr int partSpacing = 6;
    static constexpr int contentPadding = 10;
    static constexpr qreal cornerRadius = 10;

signals:
    // Emitted when the bubble's height for a width changed by itself (a system message opened or
    // closed, editing began, ended or grew).
    void heightChanged();
    // Emitted when the user asks for another reply in place of this one.
    void regenerateRequested();
    // Emitted when the user presses Return in the editor with some text: text is the edited message.
    void resendRequested(const QString &text);
    // Emitted when the user asks for version target (0-based) of this message.
    void versionRequested(int target);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    struct Layout
    {
        QRect header;
        QRect content;
        QRect footer;
        int height = 0;
    };
    Layout layoutFor(int width) const;
    void placeChildren();
    void updateCopyState();
    void updateExpand();
    void updateSteering();
    void endEditing();
    QString shownText() const;
    void applyStyle();
    void updateBackdrop();
    bool hasContent() const { return !m_message.content.isEmpty(); }

    ChatMessage m_message;
    QLabel *m_role;
    QLabel *m_usage;
    QToolButton *m_headerCopy;
    MarkdownTextView *m_markdown;
    QLabel *m_ellipsis;
    QToolButton *m_footerCopy;
    QLabel *m_footerLabel;
    QToolButton *m_expand;
    QToolButton *m_edit;
    QToolButton *m_regenerate;
    QWidget *m_switcher;
    QToolButton *m_previous;
    QLabel *m_version;
    QToolButton *m_next;
    QPlainTextEdit *m_editor = nullptr;
    bool m_expanded = false;
    bool m_editing = false;
    bool m_regenerateAvailable = false;
    bool m_steeringEnabled = true;
    bool m_partsSet = false; // whether setMessage() has set the header and footer once
    // Where placeChildren() last put the parts, and at which width: what is on screen now.
    Layout m_placed;
    int m_placedWidth = -1;
    CopyFeedback *m_feedback;
};
