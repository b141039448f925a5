#pragma once

#include "render/markdowntext.h"

#include <QElapsedTimer>
#include <QList>
#include <QString>
#include <QTimer>
#include <QUuid>
#include <QWidget>

class ChatViewModel;

// Tells a screen reader about the reply streaming into its window, which has no focus a reader
// would follow: each finished paragraph of a long reply while it streams, the reply itself (or,
// for a long one, its first paragraph and its length) when it ends, and errors with their text.
// At most one announcement per interval, each made of whole paragraphs, so none cuts a sentence.
// Only while the window is the active one, a screen reader listens, and the user has not turned
// "Announce replies" off.
//
// The announcement is this widget becoming shown with the text as its name, as a notification:
// the one thing Orca speaks for an object without focus on Qt before 6.8; from Qt 6.8 on, an
// announcement event carries the text instead. The widget itself stays hidden and takes no input.
// Lives in its window, watching chat, which must outlive it; main thread only.
class ReplyAnnouncer final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ReplyAnnouncer)

public:
    // Replies longer than this many shown characters are announced in parts.
    static constexpr qsizetype longReply = 600;
    static constexpr int shippedIntervalMs = 2000;

    explicit ReplyAnnouncer(ChatViewModel *chat, QWidget *parent = nullptr);

    // The text last announced, also the notification's accessible name.
    const QString &text() const { return m_text; }
    // The least time between two announcements (tests shorten it); negative restores the shipped one.
    void setIntervalMs(int ms);

    // What is announced when a reply ends: its shown text, or past longReply characters its first
    // paragraph and "Reply complete, N words."; when its first toldBlocks blocks were announced as
    // it streamed, the blocks after them come before that.
    static QString endText(const QString &markdown, qsizetype toldBlocks = 0);

    // The "Announce replies" setting, shared by every window; on unless the user turned it off.
    static bool isEnabled();
    static void setEnabled(bool enabled);

private:
    void handleStreaming();
    void handleChanged(qsizetype index);
    void handleError();
    void schedule(int atLeastMs = 0);
    void announceDue();
    void announce(const QString &text);
    const QString *replyContent() const;
    // The blocks of the followed reply's content, parsed again only from where its last parse
    // left a resume point, so a long reply costs each announcement its newest blocks only.
    const QList<MarkdownText::Block> &replyBlocks(const QString &content);
    void forgetParse();

    ChatViewModel *m_chat;
    QString m_text;
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_lastAnnounced = -1; // m_clock's milliseconds
    int m_intervalMs = shippedIntervalMs;
    // The reply being followed, how many of its blocks were told, whether its end is due, and
    // the error it ended with.
    QUuid m_reply;
    qsizetype m_toldBlocks = 0;
    bool m_endDue = false;
    QString m_error;
    // The last parse of the followed reply: its text, its blocks and where a longer text resumes.
    QString m_parsedText;
    QList<MarkdownText::Block> m_blocks;
    MarkdownText::ResumePoint m_resume;
};
