#include "storage/conversationstore.h"

#include "model/jsoncoding.h"
#include "storage/historyfile.h"
#include "storage/historywriter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <algorithm>
#include <utility>

namespace {

const QString newChatTitle = QStringLiteral("New Chat");
const QString defaultSystemPromptKey = QStringLiteral("defaultSystemPrompt.v1");

QSettings preferences()
{
    return QSettings(QStringLiteral("Verbolt"), QStringLiteral("Verbolt"));
}

} // namespace

ConversationStore::ConversationStore(QObject *parent)
    : ConversationStore(defaultFilePath(), parent)
{}

ConversationStore::ConversationStore(const QString &filePath, QObject *parent)
    : QObject(parent)
    , m_filePath(filePath)
    , m_clock(&ReferenceDate::now)
{
    // A folder that cannot be made is not an error here: the first save will fail quietly.
    QDir().mkpath(QFileInfo(m_filePath).absolutePath());
    load();
    // Closing the last window quits at once: whatever was handed to the writer is on disk first.
    if (QCoreApplication *app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &ConversationStore::waitForSaved);
}

ConversationStore::~ConversationStore()
{
    m_writer.reset();
}

QString ConversationStore::defaultFilePath()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    QString folder = base.isEmpty() ? QString() : base + QStringLiteral("/Verbolt");
    if (folder.isEmpty() || !QDir().mkpath(folder))
        folder = QDir::tempPath() + QStringLiteral("/Verbolt");
    return folder + QStringLiteral("/conversations.json");
}

void ConversationStore::load()
{
    const HistoryFile::ReadResult read = HistoryFile::read(m_filePath);
    bool unreadableInPlace = false;
    if (read.status == HistoryFile::ReadResult::Status::Decoded) {
        m_conversations = read.conversations; // shared with the writer's copy, not copied
        sortNewestFirst();
        if (!m_conversations.isEmpty())
            m_selectedID = m_conversations.first().id;
    } else if (read.status == HistoryFile::ReadResult::Status::Unreadable && read.stamp.size > 0) {
        // The first save would replace the history with a shorter one; keep the original beside
        // it first, leaving the file itself untouched at start.
        m_keptAsidePath = HistoryFile::keepAside(m_filePath, false);
        unreadableInPlace = !m_keptAsidePath;
    } else if (read.status == HistoryFile::ReadResult::Status::Changing) {
        // Someone is writing it (a backup being restored): the first save reads it again.
        unreadableInPlace = true;
    }
    m_writer = std::make_unique<HistoryWriter>(m_filePath, read.stamp, read.conversations, unreadableInPlace, [this] {
        QMetaObject::invokeMethod(this, &ConversationStore::takeSaveOutcomes, Qt::QueuedConnection);
    });
}

void ConversationStore::waitForSaved()
{
    m_writer->waitForIdle();
    takeSaveOutcomes();
}

void ConversationStore::setConversations(const QList<Conversation> &conversations)
{
    // Whatever the new list holds counts as this process's own, and whatever it lacks as deleted.
    for (const Conversation &c : std::as_const(m_conversations))
        markDeleted(c.id);
    m_conversations = conversations;
    for (const Conversation &c : std::as_const(m_conversations))
        markChanged(c.id);
    emit conversationsChanged();
}

void ConversationStore::setSelectedID(const std::optional<QUuid> &id)
{
    if (id == m_selectedID)
        return;
    m_selectedID = id;
    emit selectedIDChanged();
}

std::optional<Conversation> ConversationStore::selected() const
{
    const Conversation *found = m_selectedID ? find(*m_selectedID) : nullptr;
    if (!found)
        return std::nullopt;
    return *found;
}

const Conversation *ConversationStore::find(const QUuid &id) const
{
    const qsizetype i = indexOf(id);
    return i < 0 ? nullptr : &m_conversations.at(i);
}

void ConversationStore::setToday(std::function<QDate()> today)
{
    m_today = std::move(today);
}

void ConversationStore::setClock(std::function<double()> clock)
{
    m_clock = std::move(clock);
}

QString ConversationStore::defaultSystemPrompt() const
{
    return preferences().value(defaultSystemPromptKey).toString();
}

void ConversationStore::setDefaultSystemPrompt(const QString &text)
{
    QSettings settings = preferences();
    if (text.trimmed().isEmpty())
        settings.remove(defaultSystemPromptKey);
    else
        settings.setValue(defaultSystemPromptKey, text);
    settings.sync();
}

Conversation ConversationStore::newChat(const std::optional<QUuid> &providerID)
{
    Conversation conversation;
    conversation.id = QUuid::createUuid();
    conversation.title = newChatTitle;
    conversation.providerID = providerID;
    const QString prompt = defaultSystemPrompt();
    if (!prompt.trimmed().isEmpty())
        conversation.messages = {ChatMessage(ChatRole::system, prompt)};
    conversation.createdAt = m_clock();
    conversation.updatedAt = conversation.createdAt;
    m_conversations.prepend(conversation);
    markChanged(conversation.id);
    emit conversationsChanged();
    setSelectedID(conversation.id);
    persist();
    return conversation;
}

Conversation ConversationStore::startChat(const std::optional<QUuid> &providerID)
{
    if (!m_conversations.isEmpty() && m_conversations.first().messages.isEmpty()) {
        setSelectedID(m_conversations.first().id);
        return m_conversations.first();
    }
    return newChat(providerID);
}

void ConversationStore::updateMessages(const QUuid &id, const QList<ChatMessage> &messages)
{
    const qsizetype i = indexOf(id);
    if (i < 0)
        return;
    Conversation conversation = m_conversations.takeAt(i);
    conversation.messages = messages;
    conversation.updatedAt = m_clock();
    if (conversation.title == newChatTitle) {
        if (auto title = Conversation::derivedTitle(messages))
            conversation.title = std::move(*title);
    }
    m_conversations.prepend(std::move(conversation));
    markChanged(id);
    emit conversationsChanged();
    emit conversationUpdated(id);
    persist();
}

void ConversationStore::rename(const QUuid &id, const QString &title)
{
    const qsizetype i = indexOf(id);
    if (i < 0)
        return;
    const QString trimmed = title.trimmed();
    if (trimmed.isEmpty())
        return;
    m_conversations[i].title = trimmed;
    markChanged(id);
    emit conversationsChanged();
    emit conversationUpdated(id);
    persist();
}

void ConversationStore::deleteConversation(const Conversation &conversation)
{
    m_conversations.removeIf([&](const Conversation &c) { return c.id == conversation.id; });
    markDeleted(conversation.id);
    emit conversationsChanged();
    if (m_selectedID && *m_selectedID == conversation.id)
        setSelectedID(m_conversations.isEmpty() ? std::nullopt : std::optional<QUuid>(m_conversations.first().id));
    persist();
}

void ConversationStore::merge(const QList<Conversation> &incoming)
{
    for (const Conversation &conversation : incoming) {
        const qsizetype i = indexOf(conversation.id);
        if (i >= 0)
            m_conversations[i] = conversation;
        else
            m_conversations.append(conversation);
        markChanged(conversation.id);
    }
    sortNewestFirst();
    emit conversationsChanged();
    for (const Conversation &conversation : incoming)
        emit conversationUpdated(conversation.id);
    if (!m_selectedID && !m_conversations.isEmpty())
        setSelectedID(m_conversations.first().id);
    persist();
}

void ConversationStore::setLiveReply(const QUuid &conversationID, const QUuid &afterID, const ChatMessage &reply)
{
    const LiveReply live{conversationID, afterID, reply};
    const auto it = std::find_if(m_liveReplies.begin(), m_liveReplies.end(),
                                 [&](const LiveReply &r) { return r.message.id == reply.id; });
    if (it != m_liveReplies.end())
        *it = live;
    else
        m_liveReplies.append(live);
    emit liveReplyChanged(conversationID, reply.id);
}

void ConversationStore::endLiveReply(const QUuid &replyID)
{
    const auto it = std::find_if(m_liveReplies.begin(), m_liveReplies.end(),
                                 [&](const LiveReply &r) { return r.message.id == replyID; });
    if (it == m_liveReplies.end())
        return;
    const QUuid conversationID = it->conversationID;
    m_liveReplies.erase(it);
    emit liveReplyChanged(conversationID, replyID);
}

QList<ConversationStore::LiveReply> ConversationStore::liveReplies(const QUuid &conversationID) const
{
    QList<LiveReply> found;
    for (const LiveReply &live : m_liveReplies) {
        if (live.conversationID == conversationID)
            found.append(live);
    }
    return found;
}

qsizetype ConversationStore::restore(const QList<Conversation> &copy)
{
    QList<QUuid> restored;
    for (const Conversation &conversation : copy) {
        const qsizetype i = indexOf(conversation.id);
        if (i >= 0 && m_conversations.at(i).updatedAt >= conversation.updatedAt)
            continue; // what the user has now is as new or newer
        if (i >= 0)
            m_conversations[i] = conversation;
        else
            m_conversations.append(conversation);
        markChanged(conversation.id);
        restored.append(conversation.id);
    }
    if (restored.isEmpty())
        return 0;
    sortNewestFirst();
    emit conversationsChanged();
    for (const QUuid &id : std::as_const(restored))
        emit conversationUpdated(id);
    if (!m_selectedID && !m_conversations.isEmpty())
        setSelectedID(m_conversations.first().id);
    persist();
    return restored.size();
}

void ConversationStore::markChanged(const QUuid &id)
{
    m_deleted.remove(id);
    m_changed.insert(id);
    m_changedIn.insert(id, m_saveGeneration + 1);
}

void ConversationStore::markDeleted(const QUuid &id)
{
    m_changed.remove(id);
    m_deleted.insert(id);
    m_changedIn.insert(id, m_saveGeneration + 1);
}

void ConversationStore::persist()
{
    // A copy of the list costs a reference count here; the records themselves are shared until
    // this thread changes one of them.
    HistoryWriter::Job job;
    job.generation = ++m_saveGeneration;
    job.snapshot = m_conversations;
    job.changed = std::exchange(m_changed, {});
    job.deleted = std::exchange(m_deleted, {});
    job.today = m_today ? m_today() : QDate::currentDate();
    m_writer->submit(std::move(job));
}

void ConversationStore::takeSaveOutcomes()
{
    QList<QUuid> adopted;
    for (HistoryWriter::Outcome &outcome : m_writer->takeOutcomes()) {
        m_lastSaveError = outcome.error;
        if (outcome.keptAsidePath)
            m_keptAsidePath = outcome.keptAsidePath;
        for (Conversation &record : outcome.adopted) {
            // Changed or deleted here after that save: this process's newer state is kept, and the
            // next save writes it.
            if (m_changedIn.value(record.id) > outcome.generation)
                continue;
            const qsizetype i = indexOf(record.id);
            if (i >= 0)
                m_conversations[i] = std::move(record);
            else
                m_conversations.append(std::move(record));
            adopted.append(m_conversations.at(i >= 0 ? i : m_conversations.size() - 1).id);
        }
    }
    if (adopted.isEmpty())
        return;
    sortNewestFirst();
    emit conversationsChanged();
    for (const QUuid &id : std::as_const(adopted))
        emit conversationUpdated(id);
    if (!m_selectedID && !m_conversations.isEmpty())
        setSelectedID(m_conversations.first().id);
}

void ConversationStore::sortNewestFirst()
{
    std::stable_sort(m_conversations.begin(), m_conversations.end(),
                     [](const Conversation &a, const Conversation &b) { return a.updatedAt > b.updatedAt; });
}

qsizetype ConversationStore::indexOf(const QUuid &id) const
{
    for (qsizetype i = 0; i < m_conversations.size(); ++i) {
        if (m_conversations.at(i).id == id)
            return i;
    }
    return -1;
}
