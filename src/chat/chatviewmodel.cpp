#include "chat/chatviewmodel.h"

#include "model/versions.h"
#include "storage/conversationstore.h"
#include "transport/chatstream.h"

#include <QHash>
#include <QSet>

#include <algorithm>
#include <chrono>
#include <limits>

namespace {

double monotonicSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::optional<qint64> merged(const std::optional<qint64> &incoming, const std::optional<qint64> &earlier)
{
    return incoming ? incoming : earlier;
}

} // namespace

QString ChatViewModel::noProviderText()
{
    return QStringLiteral("Pick a provider first (Settings Ctrl+,).");
}

ChatViewModel::ChatViewModel(QObject *parent)
    : QObject(parent)
    , m_clock(monotonicSeconds)
{
    m_lastFlush = m_clock();
}

ChatViewModel::~ChatViewModel()
{
    // A window closed mid-reply keeps what arrived. The window is going and may be half taken down
    // already: nobody hears of the end.
    m_onStreamEnd = nullptr;
    blockSignals(true);
    finishReply();
    // A reply still running must not call back into a half-destroyed view model.
    if (m_streamTask)
        m_streamTask->disconnect(this);
    if (m_stoppedTurn && m_stoppedTurn->stream)
        m_stoppedTurn->stream->disconnect(this);
}

void ChatViewModel::setInput(const QString &input)
{
    if (m_input == input)
        return;
    m_input = input;
    emit inputChanged();
}

void ChatViewModel::setStore(ConversationStore *store)
{
    disconnect(m_liveConnection);
    m_store = store;
    if (store)
        m_liveConnection = connect(store, &ConversationStore::liveReplyChanged, this, &ChatViewModel::handleLiveReply);
}

ConversationStore *ChatViewModel::store() const
{
    return m_store;
}

void ChatViewModel::setOnStreamEnd(std::function<void()> onStreamEnd)
{
    m_onStreamEnd = std::move(onStreamEnd);
}

void ChatViewModel::setClock(std::function<double()> secondsNow)
{
    m_clock = secondsNow ? std::move(secondsNow) : std::function<double()>(monotonicSeconds);
    // The last update was "now" on the new clock: readings of two clocks cannot be compared.
    m_lastFlush = m_clock();
}

void ChatViewModel::activate(const std::optional<Conversation> &conversation)
{
    const std::optional<QUuid> oldID = m_conversationID;
    stop();
    // The reply ends as a Stop and is saved to the conversation it belongs to, before that
    // conversation stops being the one shown.
    const bool ended = finishStoppedTurn();
    std::optional<Conversation> shown = conversation;
    if (ended && shown && shown->id == oldID && m_store) {
        // The record handed in was read before the reply that just ended was saved into it.
        if (const Conversation *stored = m_store->find(shown->id))
            shown = *stored;
    }
    m_conversationID = shown ? std::optional<QUuid>(shown->id) : std::nullopt;
    m_messages = shown ? shown->messages.list() : QList<ChatMessage>();
    m_othersLive.clear();
    showLiveReplies();
    emit messagesReset();
    emit messagesChanged();
    setErrorText(std::nullopt);
    m_pendingText.clear();
    if (m_conversationID != oldID)
        m_lastFlush = m_clock();
}

void ChatViewModel::send(const std::optional<Provider> &provider)
{
    const QString text = m_input.trimmed();
    if (text.isEmpty())
        return;
    if (m_isStreaming)
        return;
    if (!provider) {
        setErrorText(noProviderText());
        return;
    }
    if (!m_conversationID)
        return;

    // A reply stopped moments ago may not have wound down yet; it is finished first so that its
    // partial text is saved and the shared pending text belongs to this turn alone.
    finishStoppedTurn();

    setErrorText(std::nullopt);
    m_messages.append(ChatMessage(ChatRole::user, text));
    emit messageInserted(m_messages.size() - 1);
    emit messagesChanged();
    setInput(QString());
    persist();

    m_messages.append(ChatMessage(ChatRole::assistant, QString()));
    emit messageInserted(m_messages.size() - 1);
    emit messagesChanged();
    beginReply(*provider);
}

bool ChatViewModel::canRegenerate() const
{
    return !m_isStreaming && m_conversationID && !m_messages.isEmpty() &&
           m_messages.last().role == ChatRole::assistant && !m_othersLive.contains(m_messages.last().id);
}

void ChatViewModel::regenerate(const std::optional<Provider> &provider)
{
    if (!canRegenerate())
        return;
    if (!provider) {
        setErrorText(noProviderText());
        return;
    }
    finishStoppedTurn();
    if (!canRegenerate())
        return;
    setErrorText(std::nullopt);
    const qsizetype index = m_messages.size() - 1;
    const int previous = MessageVersioning::versionIndex(m_messages.at(index));
    // Not saved yet: the file holds the earlier reply as shown, and a new one that fails empty
    // leaves nothing behind to take out again.
    replaceMessages(MessageVersioning::addVersion(m_messages, index, ChatMessage(ChatRole::assistant, QString())),
                    index);
    beginReply(*provider, previous);
}

void ChatViewModel::editAndResend(qsizetype index, const QString &text, const std::optional<Provider> &provider)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty() || m_isStreaming || !m_conversationID || index < 0 || index >= m_messages.size() ||
        m_messages.at(index).role != ChatRole::user)
        return;
    if (!provider) {
        setErrorText(noProviderText());
        return;
    }
    finishStoppedTurn();
    if (index >= m_messages.size() || m_messages.at(index).role != ChatRole::user)
        return;
    setErrorText(std::nullopt);
    replaceMessages(MessageVersioning::addVersion(m_messages, index, ChatMessage(ChatRole::user, trimmed)), index);
    persist();
    m_messages.append(ChatMessage(ChatRole::assistant, QString()));
    emit messageInserted(m_messages.size() - 1);
    emit messagesChanged();
    beginReply(*provider);
}

void ChatViewModel::showVersion(qsizetype index, int target)
{
    if (index < 0 || index >= m_messages.size())
        return;
    const QUuid id = m_messages.at(index).id;
    finishReply();
    // Ending the reply may have brought in another window's turns: the message is found again.
    index = indexOfMessage(id);
    if (index < 0)
        return;
    QList<ChatMessage> shown = MessageVersioning::showVersion(m_messages, index, target);
    if (shown.constData() == m_messages.constData())
        return;
    replaceMessages(std::move(shown), index);
    persist();
}

void ChatViewModel::replaceMessages(QList<ChatMessage> messages, qsizetype from)
{
    m_messages = std::move(messages);
    emit messagesReplaced(from);
    emit messagesChanged();
}

void ChatViewModel::beginReply(const Provider &provider, std::optional<int> previousVersion)
{
    // The reply is the last message, empty; everything before it is sent.
    const QUuid replyID = m_messages.last().id;
    setStreaming(true);
    m_pendingText.clear();
    m_lastFlush = m_clock();
    const QList<ChatMessage> toSend = m_messages.first(m_messages.size() - 1);

    Turn turn;
    turn.serial = ++m_turnSerial;
    turn.replyID = replyID;
    turn.conversationID = m_conversationID;
    turn.previousVersion = previousVersion;
    turn.stream = m_service.stream(provider, toSend, this);
    connect(turn.stream, &ChatStream::eventReceived, this,
            [this, turn](const ChatEvent &event) { handleEvent(turn, event); });
    connect(turn.stream, &ChatStream::finished, this,
            [this, turn](const std::optional<ServiceError> &error) { handleFinished(turn, error); });
    m_streamTask = turn.stream;
    m_turn = turn;
}

QString ChatViewModel::systemPromptOf(const QList<ChatMessage> &messages)
{
    if (messages.isEmpty() || messages.first().role != ChatRole::system)
        return QString();
    return messages.first().content;
}

QList<ChatMessage> ChatViewModel::withSystemPrompt(QList<ChatMessage> messages, const QString &text)
{
    const bool has = !messages.isEmpty() && messages.first().role == ChatRole::system;
    if (text.trimmed().isEmpty()) {
        if (has)
            messages.removeFirst();
    } else if (has) {
        messages.first().content = text;
    } else {
        messages.prepend(ChatMessage(ChatRole::system, text));
    }
    return messages;
}

void ChatViewModel::setSystemPrompt(const QString &text)
{
    if (!m_conversationID)
        return;
    const bool had = !m_messages.isEmpty() && m_messages.first().role == ChatRole::system;
    const QUuid oldPrompt = had ? m_messages.first().id : QUuid();
    const QList<ChatMessage> changed = withSystemPrompt(m_messages, text);
    if (changed == m_messages)
        return;
    m_messages = changed;
    const bool has = !m_messages.isEmpty() && m_messages.first().role == ChatRole::system;
    if (had && has)
        emit messageChanged(0);
    else if (has)
        emit messageInserted(0);
    else
        emit messageRemoved(0);
    emit messagesChanged();
    persist();
    if (had && !has && m_store) {
        // The save keeps every stored message the transcript lacks (another window's turns), which
        // brings the removed prompt back: it is taken out of the stored record as well.
        for (const Conversation &stored : m_store->conversations()) {
            if (stored.id != *m_conversationID)
                continue;
            QList<ChatMessage> kept = stored.messages.list();
            if (kept.removeIf([&](const ChatMessage &m) { return m.id == oldPrompt; }) > 0)
                m_store->updateMessages(stored.id, kept);
            break;
        }
    }
}

bool ChatViewModel::finishReply()
{
    if (m_streamTask && !m_streamTask->isFinished())
        stop();
    return finishStoppedTurn();
}

void ChatViewModel::stop()
{
    if (m_streamTask) {
        if (!m_streamTask->isFinished())
            m_stoppedTurn = m_turn;
        m_streamTask->cancel();
        m_streamTask = nullptr;
    }
    setStreaming(false);
    if (m_onStreamEnd)
        m_onStreamEnd();
}

void ChatViewModel::handleEvent(const Turn &turn, const ChatEvent &event)
{
    if (m_conversationID != turn.conversationID) {
        // The user is looking at another conversation: this reply has nowhere to go. Its end
        // step follows when the cancelled stream reports its end.
        if (turn.stream)
            turn.stream->cancel();
        return;
    }
    switch (event.kind) {
    case ChatEvent::Kind::delta:
        m_pendingText += event.text;
        if (flush(turn.replyID, false))
            publishLiveReply(turn);
        break;
    case ChatEvent::Kind::usage: {
        const qsizetype index = indexOfMessage(turn.replyID);
        if (index < 0)
            break;
        const TokenUsage earlier = m_messages.at(index).usage.value_or(TokenUsage());
        const TokenUsage usage{merged(event.usage.promptTokens, earlier.promptTokens),
                               merged(event.usage.completionTokens, earlier.completionTokens),
                               merged(event.usage.totalTokens, earlier.totalTokens)};
        if (m_messages.at(index).usage == usage)
            break;
        m_messages[index].usage = usage;
        emit messageChanged(index);
        emit messagesChanged();
        publishLiveReply(turn);
        break;
    }
    }
}

void ChatViewModel::handleFinished(const Turn &turn, const std::optional<ServiceError> &error)
{
    if (m_stoppedTurn && m_stoppedTurn->serial == turn.serial)
        m_stoppedTurn.reset();
    // Other windows stop showing the reply as live before it is saved; the save shows it to them.
    if (m_store)
        m_store->endLiveReply(turn.replyID);

    flush(turn.replyID, true);
    if (error) {
        // Shown even when the user has moved to another conversation: the failure is news.
        setErrorText(errorDescription(*error));
        const qsizetype index = indexOfMessage(turn.replyID);
        if (index >= 0 && m_messages.at(index).content.isEmpty() && m_messages.at(index).versions) {
            // A failed regenerate leaves the earlier replies as they were.
            replaceMessages(MessageVersioning::dropShownVersion(
                                m_messages, index, turn.previousVersion.value_or(std::numeric_limits<int>::max())),
                            index);
        } else if (index >= 0 && m_messages.at(index).content.isEmpty()) {
            m_messages.removeAt(index);
            emit messageRemoved(index);
            emit messagesChanged();
        }
    }
    // Switching conversations saves a running reply before the other one is shown (activate);
    // nothing of this turn belongs to the transcript shown now.
    if (m_conversationID != turn.conversationID)
        return;
    setStreaming(false);
    persist();
    if (m_onStreamEnd)
        m_onStreamEnd();
}

bool ChatViewModel::finishStoppedTurn()
{
    if (!m_stoppedTurn)
        return false;
    const Turn turn = *m_stoppedTurn;
    m_stoppedTurn.reset();
    if (!turn.stream)
        return false;
    turn.stream->disconnect(this);
    handleFinished(turn, std::nullopt);
    return true;
}

bool ChatViewModel::flush(const QUuid &id, bool force)
{
    if (m_pendingText.isEmpty())
        return false;
    const double now = m_clock();
    if (!force && now - m_lastFlush < flushInterval)
        return false;
    appendDelta(m_pendingText, id);
    m_pendingText.clear();
    m_lastFlush = now;
    return true;
}

void ChatViewModel::publishLiveReply(const Turn &turn)
{
    const qsizetype index = indexOfMessage(turn.replyID);
    if (!m_store || !turn.conversationID || index < 0)
        return;
    const QUuid afterID = index > 0 ? m_messages.at(index - 1).id : QUuid();
    m_store->setLiveReply(*turn.conversationID, afterID, m_messages.at(index));
}

namespace {

enum class Placed { changed, inserted, replaced, hidden };

// Puts a reply another window streams into messages: over its earlier state, else after the message
// it answers, else at the end. A new version of a reply shown here (a regenerate) takes that reply's
// place, with whatever followed it, so that the conversation reads as the other window shows it. A
// reply to a message in a version not shown here (edited away meanwhile) is not shown.
// Returns where it went and how.
std::pair<qsizetype, Placed> placeLiveReply(QList<ChatMessage> &messages, const ConversationStore::LiveReply &live)
{
    qsizetype after = -1;
    for (qsizetype i = messages.size() - 1; i >= 0; --i) {
        if (messages.at(i).id == live.message.id) {
            messages[i] = live.message;
            return {i, Placed::changed};
        }
        if (after < 0 && messages.at(i).id == live.afterID)
            after = i;
    }
    if (after < 0 && !live.afterID.isNull()) {
        const QSet<QUuid> all = MessageVersioning::allIDs(messages);
        if (all.contains(live.afterID) || all.contains(live.message.id))
            return {-1, Placed::hidden};
    }
    const qsizetype at = after >= 0 ? after + 1 : messages.size();
    if (live.message.versions && at < messages.size()) {
        const QSet<QUuid> hidden = MessageVersioning::hiddenIDs(live.message);
        if (hidden.contains(messages.at(at).id)) {
            messages.erase(std::remove_if(messages.begin() + at, messages.end(),
                                          [&](const ChatMessage &m) { return hidden.contains(m.id); }),
                           messages.end());
            messages.insert(at, live.message);
            return {at, Placed::replaced};
        }
    }
    messages.insert(at, live.message);
    return {at, Placed::inserted};
}

} // namespace

void ChatViewModel::showLiveReplies()
{
    if (!m_store || !m_conversationID)
        return;
    for (const ConversationStore::LiveReply &live : m_store->liveReplies(*m_conversationID)) {
        placeLiveReply(m_messages, live);
        m_othersLive.insert(live.message.id);
    }
}

void ChatViewModel::handleLiveReply(const QUuid &conversationID, const QUuid &replyID)
{
    if (!m_store || m_conversationID != conversationID || replyID == m_turn.replyID ||
        (m_stoppedTurn && m_stoppedTurn->replyID == replyID))
        return;
    // An ended reply is left as it is: its window saves it next, and the save reloads this one.
    for (const ConversationStore::LiveReply &live : m_store->liveReplies(conversationID)) {
        if (live.message.id != replyID)
            continue;
        m_othersLive.insert(replyID);
        const auto [index, placed] = placeLiveReply(m_messages, live);
        switch (placed) {
        case Placed::changed:
            emit messageChanged(index);
            break;
        case Placed::inserted:
            emit messageInserted(index);
            break;
        case Placed::replaced:
            emit messagesReplaced(index);
            break;
        case Placed::hidden:
            return;
        }
        emit messagesChanged();
        return;
    }
}

void ChatViewModel::appendDelta(const QString &text, const QUuid &id)
{
    const qsizetype index = indexOfMessage(id);
    if (index < 0)
        return;
    m_messages[index].content += text;
    emit messageChanged(index);
    emit messagesChanged();
}

namespace {

// Another window may have saved turns into the same conversation while this one streamed. They
// are kept: every stored message this transcript lacks goes in after the message that preceded
// it in the store, past this transcript's own newer messages there, so each turn stays in one
// piece and neither window's turn is lost. Messages both have are saved as this transcript has them.
//
// A stored message may be a new version another window made of messages this transcript shows (an
// edit and resend there while a reply streamed here): it takes their place, and they live on among
// its hidden versions with the text they have here. Every message is saved once.
QList<ChatMessage> withOthersTurns(const QList<ChatMessage> &mine, const QList<ChatMessage> &stored)
{
    // A message kept among this transcript's hidden versions is this transcript's too.
    QSet<QUuid> mineIDs = MessageVersioning::allIDs(mine);
    QSet<QUuid> storedIDs;
    bool othersAdded = false;
    for (const ChatMessage &m : stored) {
        storedIDs.insert(m.id);
        othersAdded = othersAdded || !mineIDs.contains(m.id);
    }
    if (!othersAdded)
        return mine;

    QList<ChatMessage> merged = mine;
    qsizetype insertAt = 0; // just past the last stored message placed so far
    for (const ChatMessage &m : stored) {
        if (mineIDs.contains(m.id)) {
            for (qsizetype i = 0; i < merged.size(); ++i) {
                if (merged.at(i).id == m.id) {
                    insertAt = i + 1;
                    break;
                }
            }
            continue;
        }
        if (m.versions) {
            const QSet<QUuid> hidden = MessageVersioning::hiddenIDs(m);
            const auto first = std::find_if(merged.cbegin(), merged.cend(),
                                            [&](const ChatMessage &shown) { return hidden.contains(shown.id); });
            if (first != merged.cend()) {
                const qsizetype at = first - merged.cbegin();
                QHash<QUuid, ChatMessage> copies;
                for (const ChatMessage &shown : std::as_const(merged)) {
                    if (hidden.contains(shown.id))
                        copies.insert(shown.id, shown);
                }
                merged.removeIf([&](const ChatMessage &shown) { return hidden.contains(shown.id); });
                const ChatMessage version = MessageVersioning::withCopies({m}, copies).first();
                merged.insert(at, version);
                mineIDs.unite(MessageVersioning::allIDs({version}));
                insertAt = at + 1;
                continue;
            }
        }
        while (insertAt < merged.size() && !storedIDs.contains(merged.at(insertAt).id))
            ++insertAt;
        merged.insert(insertAt++, m);
    }
    return merged;
}

} // namespace

void ChatViewModel::persist()
{
    if (!m_conversationID || !m_store)
        return;
    const Conversation *stored = m_store->find(*m_conversationID);
    if (!stored)
        return;
    QList<ChatMessage> mine = m_messages;
    if (!m_othersLive.isEmpty()) {
        mine.removeIf([this](const ChatMessage &m) { return m_othersLive.contains(m.id); });
        // A reply another window streamed may have been caught here inside a version made meanwhile;
        // its own window saved it whole, and that text is the one kept.
        mine = MessageVersioning::withCopies(mine, MessageVersioning::findAll(stored->messages.list(), m_othersLive));
    }
    m_store->updateMessages(stored->id, withOthersTurns(mine, stored->messages.list()));
}

void ChatViewModel::setStreaming(bool streaming)
{
    if (m_isStreaming == streaming)
        return;
    m_isStreaming = streaming;
    emit isStreamingChanged();
}

void ChatViewModel::setErrorText(const std::optional<QString> &text)
{
    if (m_errorText == text)
        return;
    m_errorText = text;
    emit errorTextChanged();
}

qsizetype ChatViewModel::indexOfMessage(const QUuid &id) const
{
    for (qsizetype i = 0; i < m_messages.size(); ++i) {
        if (m_messages.at(i).id == id)
            return i;
    }
    return -1;
}
