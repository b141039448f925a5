#pragma once

#include "model/chatmessage.h"
#include "model/conversation.h"
#include "model/provider.h"
#include "transport/chatservice.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

class ChatStream;
class ConversationStore;

// The live state of the conversation shown in one main window, and the turn that sends the
// composer's text and streams the provider's reply into the transcript. Owned by its window;
// lives and runs on the main thread.
//
// Streamed text reaches `messages` at most once per flushInterval (there is no timer: text that
// arrives sooner waits for the next fragment after the interval or for the end of the reply).
// The messages are saved to the store when a turn starts and when its reply ends, fails or is
// stopped. The store is held weakly: once it is gone, saving is skipped and the transcript in
// memory stays as it is.
//
// Failures never throw: a transport failure's user-visible text goes to errorText, an empty
// reply is then removed and a partial one kept.
class ChatViewModel final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ChatViewModel)
    Q_PROPERTY(QList<ChatMessage> messages READ messages NOTIFY messagesChanged)
    Q_PROPERTY(QString input READ input WRITE setInput NOTIFY inputChanged)
    Q_PROPERTY(bool isStreaming READ isStreaming NOTIFY isStreamingChanged)
    // Absent (nullopt) when there is no error to show.
    Q_PROPERTY(std::optional<QString> errorText READ errorText NOTIFY errorTextChanged)

public:
    // Minimum seconds between two transcript updates while a reply streams.
    static constexpr double flushInterval = 0.05;
    // Shown when a turn is sent without a provider.
    static QString noProviderText();

    explicit ChatViewModel(QObject *parent = nullptr);
    ~ChatViewModel() override;

    const QList<ChatMessage> &messages() const { return m_messages; }
    QString input() const { return m_input; }
    void setInput(const QString &input);
    bool isStreaming() const { return m_isStreaming; }
    std::optional<QString> errorText() const { return m_errorText; }
    // The window shows its own failures (a model-list fetch, an export) in the same line.
    void setErrorText(const std::optional<QString> &text);

    // Where messages are saved. Never owned: the view model stops saving once the store is destroyed.
    void setStore(ConversationStore *store);
    ConversationStore *store() const;
    // Called whenever streaming stops (by stop() at once, and when the reply's end has been saved).
    void setOnStreamEnd(std::function<void()> onStreamEnd);

    // Seconds on a monotonic clock, read once per streamed fragment; the shipped clock is the real
    // one, and an empty function restores it. Tests replace it to decide how far apart fragments arrive.
    void setClock(std::function<double()> secondsNow);

    // Shows a conversation (or none): stops any running reply, reloads the transcript from the
    // record and clears the error. The composer's text is kept.
    void activate(const std::optional<Conversation> &conversation);
    // Starts a turn with the trimmed composer text. Ignored when the text is blank, a reply is
    // already streaming, or no conversation is shown; without a provider only errorText is set.
    void send(const std::optional<Provider> &provider);
    // Stops the current reply. The text received so far stays, and is saved once the transfer
    // has wound down (which calls onStreamEnd a second time).
    void stop();
    // Whether the transcript holds replies another window streams (or streamed until lately): the
    // store's record then differs from what is shown here, even when it did not change.
    bool showsOthersReplies() const { return !m_othersLive.isEmpty(); }
    // Whether the conversation with that id is the one shown.
    bool isShowing(const QUuid &conversationID) const { return m_conversationID == conversationID; }
    // The conversation's standing instructions: the content of its first message when that is a
    // system message, else empty.
    QString systemPrompt() const { return systemPromptOf(m_messages); }
    // Sets, changes or (with a blank text) removes the system message at the start of the
    // transcript, and saves.
    void setSystemPrompt(const QString &text);
    static QString systemPromptOf(const QList<ChatMessage> &messages);
    // The messages with the system prompt set to text: the first message's content when it is a
    // system message (its id kept), else a new system message in front. A blank text removes it.
    static QList<ChatMessage> withSystemPrompt(QList<ChatMessage> messages, const QString &text);

    // Whether regenerate() would start now: no reply streams, a conversation is shown and its last
    // message is a reply of this window's (not one another window is streaming).
    bool canRegenerate() const;
    // Streams a new reply to the messages before the last reply, for provider, as a new version of
    // that reply; the earlier replies stay reachable through the versions. Ignored unless
    // canRegenerate(); without a provider only errorText is set.
    void regenerate(const std::optional<Provider> &provider);
    // Makes text (trimmed) a new version of the user message at index and of everything after it,
    // and streams a reply to it. Ignored like send(), and when text is blank or the message at index
    // is not the user's; without a provider only errorText is set.
    void editAndResend(qsizetype index, const QString &text, const std::optional<Provider> &provider);
    // Shows version target (0-based) of the message at index, with the turns that followed that
    // version, and saves the choice. A running reply is ended first and saved, as a Stop is. An index
    // or target out of range changes nothing.
    void showVersion(qsizetype index, int target);

    // Ends a running reply the way stop() does, but saves what arrived (with its usage) to the
    // conversation it belongs to before returning. Switching conversations, closing the window and
    // quitting go through here, so no reply is ever thrown away. True when a reply was ended.
    bool finishReply();

signals:
    // Emitted after every change of the transcript, including each move of streamed text into it.
    void messagesChanged();
    // Finer notices of the same changes, each emitted just before its messagesChanged(), so that a
    // view can update only what changed: the whole list was replaced (another conversation) ...
    void messagesReset();
    // ... one message was added at index ...
    void messageInserted(qsizetype index);
    // ... one message was removed from index ...
    void messageRemoved(qsizetype index);
    // ... or the content or usage of the message at index changed ...
    void messageChanged(qsizetype index);
    // ... or the messages from index on were replaced by others (another version was shown or made);
    // the ones before index are the same.
    void messagesReplaced(qsizetype index);
    // Emitted when the composer's text changes, also when a send clears it.
    void inputChanged();
    // Emitted when a reply starts or stops streaming.
    void isStreamingChanged();
    // Emitted when an error appears, changes or is cleared.
    void errorTextChanged();

private:
    // What one turn remembers for its own reply, so a later turn cannot redirect it.
    struct Turn
    {
        quint64 serial = 0;
        QPointer<ChatStream> stream;
        QUuid replyID;
        std::optional<QUuid> conversationID;
        // For a regenerate: the version shown before it, shown again when the new one fails empty.
        std::optional<int> previousVersion;
    };

    void beginReply(const Provider &provider, std::optional<int> previousVersion = std::nullopt);
    void replaceMessages(QList<ChatMessage> messages, qsizetype from);
    void handleEvent(const Turn &turn, const ChatEvent &event);
    void handleFinished(const Turn &turn, const std::optional<ServiceError> &error);
    bool finishStoppedTurn();
    void handleLiveReply(const QUuid &conversationID, const QUuid &replyID);
    void showLiveReplies();
    void publishLiveReply(const Turn &turn);

    bool flush(const QUuid &id, bool force);
    void appendDelta(const QString &text, const QUuid &id);
    void persist();

    void setStreaming(bool streaming);
    qsizetype indexOfMessage(const QUuid &id) const;

    QList<ChatMessage> m_messages;
    QString m_input;
    bool m_isStreaming = false;
    std::optional<QString> m_errorText;
    ChatService m_service;
    QPointer<ChatStream> m_streamTask;
    Turn m_turn;                       // the turn of m_streamTask
    std::optional<Turn> m_stoppedTurn; // stopped, its reply not yet wound down
    quint64 m_turnSerial = 0;
    QString m_pendingText;
    std::function<double()> m_clock;
    double m_lastFlush = 0;
    QPointer<ConversationStore> m_store;
    QMetaObject::Connection m_liveConnection;
    // Replies another window is streaming into the conversation shown here: shown as they grow,
    // never saved from here (their own window saves them).
    QSet<QUuid> m_othersLive;
    std::optional<QUuid> m_conversationID;
    std::function<void()> m_onStreamEnd;
};
