#include "storage/conversationstore.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>
#include <numeric>

namespace {

const QString newChatTitle = QStringLiteral("New Chat");

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
}

QString ConversationStore::defaultFilePath()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    QString folder = base.isEmpty() ? QString() : base + QStringLiteral("/Verbolt");
    if (folder.isEmpty() || !QDir().mkpath(folder))
        folder = QDir::tempPath() + QStringLiteral("/Verbolt");
    return folder + QStringLiteral("/conversations.json");
}

namespace {

// Maps the file when the parser's padding after its end still lies in the file's last page (the
// rest of that page reads as zeros), which saves copying the whole history out of the page cache
// into fresh memory. Otherwise reads it into a buffer with room for the padding.
std::optional<QList<Conversation>> decodeHistory(QFile &file)
{
    const qint64 size = file.size();
    constexpr qint64 page = 4096;
    const auto decode = [](QByteArrayView bytes) -> std::optional<QList<Conversation>> {
        QString error;
        const auto document = Json::Document::parsePadded(bytes, &error);
        QList<Conversation> decoded;
        if (document && fromJson(document->root(), decoded, error))
            return decoded;
        return std::nullopt;
    };
    if (size > 0 && size % page != 0 && size % page + Json::parsePadding <= page) {
        if (uchar *mapped = file.map(0, size)) {
            auto result = decode(QByteArrayView(mapped, qsizetype(size)));
            file.unmap(mapped);
            return result;
        }
    }
    QByteArray bytes;
    bytes.reserve(qsizetype(size) + Json::parsePadding);
    bytes.resize(qsizetype(size));
    if (file.read(bytes.data(), size) != size || !file.atEnd())
        return std::nullopt;
    return decode(bytes);
}

} // namespace

void ConversationStore::load()
{
    QFile file(m_filePath);
    if (!file.exists())
        return;
    std::optional<QList<Conversation>> decoded;
    if (file.open(QIODevice::ReadOnly))
        decoded = decodeHistory(file);
    file.close();
    if (decoded) {
        m_conversations = std::move(*decoded);
        forgetEncodings();
        sortNewestFirst();
        if (!m_conversations.isEmpty())
            m_selectedID = m_conversations.first().id;
    } else {
        // The first save would replace the history with a shorter one; keep the original
        // beside it first, leaving the file itself untouched at start.
        m_unreadableFileInPlace = true;
        keepUnreadableAside(false);
    }
}

bool ConversationStore::keepUnreadableAside(bool allowMove)
{
    if (!m_unreadableFileInPlace)
        return true;
    const QFileInfo info(m_filePath);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString aside;
    for (int n = 1;; ++n) {
        const QString suffix = n == 1 ? QString() : u'-' + QString::number(n);
        aside = info.absolutePath() + QStringLiteral("/conversations.unreadable-") + stamp + suffix +
                QStringLiteral(".json");
        if (!QFileInfo::exists(aside))
            break;
    }
    if (!m_keptAsidePath) {
        if (QFile::copy(m_filePath, aside)) {
            AtomicFile::restrictToOwner(aside);
            m_keptAsidePath = aside;
        }
    }
    if (m_keptAsidePath) {
        m_unreadableFileInPlace = false;
        return true;
    }
    // A file we cannot even read cannot be copied; moving it keeps it just as well.
    if (allowMove && QFile::rename(m_filePath, aside)) {
        m_keptAsidePath = aside;
        m_unreadableFileInPlace = false;
        return true;
    }
    return false;
}

void ConversationStore::setConversations(const QList<Conversation> &conversations)
{
    m_conversations = conversations;
    forgetEncodings();
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
    if (!m_selectedID)
        return std::nullopt;
    const qsizetype i = indexOf(*m_selectedID);
    if (i < 0)
        return std::nullopt;
    return m_conversations.at(i);
}

void ConversationStore::setClock(std::function<double()> clock)
{
    m_clock = std::move(clock);
}

Conversation ConversationStore::newChat(const std::optional<QUuid> &providerID)
{
    Conversation conversation;
    conversation.id = QUuid::createUuid();
    conversation.title = newChatTitle;
    conversation.providerID = providerID;
    conversation.createdAt = m_clock();
    conversation.updatedAt = conversation.createdAt;
    m_conversations.prepend(conversation);
    m_encoded.prepend(QByteArray());
    emit conversationsChanged();
    setSelectedID(conversation.id);
    persist();
    return conversation;
}

void ConversationStore::updateMessages(const QUuid &id, const QList<ChatMessage> &messages)
{
    const qsizetype i = indexOf(id);
    if (i < 0)
        return;
    Conversation conversation = m_conversations.takeAt(i);
    m_encoded.removeAt(i);
    conversation.messages = messages;
    conversation.updatedAt = m_clock();
    if (conversation.title == newChatTitle) {
        if (auto title = Conversation::derivedTitle(messages))
            conversation.title = std::move(*title);
    }
    m_conversations.prepend(std::move(conversation));
    m_encoded.prepend(QByteArray());
    emit conversationsChanged();
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
    m_encoded[i].clear();
    emit conversationsChanged();
    persist();
}

void ConversationStore::deleteConversation(const Conversation &conversation)
{
    for (qsizetype i = m_conversations.size() - 1; i >= 0; --i) {
        if (m_conversations.at(i).id == conversation.id) {
            m_conversations.removeAt(i);
            m_encoded.removeAt(i);
        }
    }
    emit conversationsChanged();
    if (m_selectedID && *m_selectedID == conversation.id)
        setSelectedID(m_conversations.isEmpty() ? std::nullopt : std::optional<QUuid>(m_conversations.first().id));
    persist();
}

void ConversationStore::merge(const QList<Conversation> &incoming)
{
    for (const Conversation &conversation : incoming) {
        const qsizetype i = indexOf(conversation.id);
        if (i >= 0) {
            m_conversations[i] = conversation;
            m_encoded[i].clear();
        } else {
            m_conversations.append(conversation);
            m_encoded.append(QByteArray());
        }
    }
    sortNewestFirst();
    emit conversationsChanged();
    if (!m_selectedID && !m_conversations.isEmpty())
        setSelectedID(m_conversations.first().id);
    persist();
}

void ConversationStore::persist()
{
    if (!keepUnreadableAside(true)) {
        m_lastSaveError =
            tr("The conversation history in %1 could not be read or kept aside; it is left as it is.").arg(m_filePath);
        return;
    }
    if (m_encoded.size() != m_conversations.size())
        forgetEncodings();
    for (qsizetype i = 0; i < m_conversations.size(); ++i) {
        if (m_encoded.at(i).isEmpty())
            m_encoded[i] = encodeJson(m_conversations.at(i));
    }
    // The same bytes as encoding the whole list at once, gathered in chunks of a few megabytes:
    // few system calls, and never a second copy of the whole history in memory.
    m_lastSaveError = AtomicFile::write(m_filePath, [this](QIODevice &device) {
        constexpr qsizetype chunkSize = 4 << 20;
        QByteArray chunk;
        chunk.reserve(chunkSize);
        const auto flush = [&] {
            const bool written = device.write(chunk) == chunk.size();
            chunk.resize(0);
            return written;
        };
        chunk.append('[');
        for (qsizetype i = 0; i < m_encoded.size(); ++i) {
            if (i > 0)
                chunk.append(',');
            const QByteArray &piece = m_encoded.at(i);
            if (chunk.size() + piece.size() > chunkSize && !flush())
                return false;
            if (piece.size() > chunkSize) {
                if (device.write(piece) != piece.size())
                    return false;
            } else {
                chunk.append(piece);
            }
        }
        chunk.append(']');
        return flush();
    });
}

void ConversationStore::forgetEncodings()
{
    m_encoded = QList<QByteArray>(m_conversations.size());
}

void ConversationStore::sortNewestFirst()
{
    QList<qsizetype> order(m_conversations.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [this](qsizetype a, qsizetype b) {
        return m_conversations.at(a).updatedAt > m_conversations.at(b).updatedAt;
    });
    QList<Conversation> conversations;
    QList<QByteArray> encoded;
    conversations.reserve(order.size());
    encoded.reserve(order.size());
    for (const qsizetype i : std::as_const(order)) {
        conversations.append(std::move(m_conversations[i]));
        encoded.append(std::move(m_encoded[i]));
    }
    m_conversations = std::move(conversations);
    m_encoded = std::move(encoded);
}

qsizetype ConversationStore::indexOf(const QUuid &id) const
{
    for (qsizetype i = 0; i < m_conversations.size(); ++i) {
        if (m_conversations.at(i).id == id)
            return i;
    }
    return -1;
}
