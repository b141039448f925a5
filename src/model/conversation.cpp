#include "model/conversation.h"

#include "model/json.h"
#include "model/jsoncoding.h"

#include <QTextBoundaryFinder>
#include <QTimeZone>

#include <chrono>
#include <cmath>
#include <mutex>

using namespace JsonCoding;

namespace ReferenceDate {

double now()
{
    using namespace std::chrono;
    const auto sinceUnix = duration<double>(system_clock::now().time_since_epoch()).count();
    return sinceUnix - double(unixOffsetSeconds);
}

double fromDateTime(const QDateTime &dateTime)
{
    return double(dateTime.toMSecsSinceEpoch() - unixOffsetSeconds * 1000) / 1000.0;
}

QDateTime toDateTime(double seconds)
{
    return QDateTime::fromMSecsSinceEpoch(qint64(std::llround((seconds + double(unixOffsetSeconds)) * 1000.0)),
                                          Qt::UTC);
}

} // namespace ReferenceDate

struct MessageList::Stored
{
    std::shared_ptr<const QByteArray> buffer; // the history file's bytes, shared by every stored list
    QByteArrayView json;
    qsizetype count = 0;
    mutable std::once_flag decodeOnce;
    mutable QList<ChatMessage> decoded;
};

MessageList MessageList::fromStored(std::shared_ptr<const QByteArray> buffer, QByteArrayView json, qsizetype count)
{
    auto stored = std::make_shared<Stored>();
    stored->buffer = std::move(buffer);
    stored->json = json;
    stored->count = count;
    MessageList list;
    list.m_stored = std::move(stored);
    return list;
}

std::optional<QByteArrayView> MessageList::stored() const
{
    if (!m_stored)
        return std::nullopt;
    return m_stored->json;
}

const QList<ChatMessage> &MessageList::list() const
{
    if (!m_stored)
        return m_list;
    std::call_once(m_stored->decodeOnce, [stored = m_stored.get()] {
        // Checked when the file was loaded, so this cannot fail.
        if (auto decoded = decodeJson<QList<ChatMessage>>(stored->json))
            stored->decoded = std::move(*decoded);
    });
    return m_stored->decoded;
}

QList<ChatMessage> &MessageList::list()
{
    if (m_stored) {
        m_list = std::as_const(*this).list();
        m_stored.reset();
    }
    return m_list;
}

qsizetype MessageList::size() const
{
    return m_stored ? m_stored->count : m_list.size();
}

bool operator==(const MessageList &a, const MessageList &b)
{
    if (a.size() != b.size())
        return false;
    // The same stored bytes hold the same messages; that spares decoding both.
    if (a.m_stored && b.m_stored && (a.m_stored == b.m_stored || a.m_stored->json == b.m_stored->json))
        return true;
    return a.list() == b.list();
}

std::optional<QString> Conversation::derivedTitle(const QList<ChatMessage> &messages)
{
    constexpr int maxCharacters = 48;
    for (const ChatMessage &m : messages) {
        if (m.role != ChatRole::user)
            continue;
        const QString &content = m.content;
        qsizetype start = 0;
        while (start < content.size() && content.at(start).isSpace())
            ++start;
        if (start == content.size())
            return std::nullopt;
        // The title needs the first graphemes only: a growing prefix is searched rather than the
        // whole message, which may be megabytes. A boundary before the prefix's end is one in the
        // whole text too, since a boundary depends on the characters up to the next one.
        for (qsizetype length = 1024;; length *= 4) {
            const bool whole = start + length >= content.size();
            QString text = whole ? content.mid(start).trimmed() : content.mid(start, length);
            text.replace(u'\n', u' ');
            QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
            int count = 0;
            while (finder.toNextBoundary() != -1) {
                if (!whole && finder.position() == text.size())
                    break;
                if (++count == maxCharacters)
                    return text.left(finder.position());
            }
            if (whole)
                return text;
        }
    }
    return std::nullopt;
}

static void write(Json::Writer &w, const Conversation &c, bool keepStored)
{
    w.beginObject();
    w.key(QLatin1StringView("id"));
    w.string(uuidText(c.id));
    w.key(QLatin1StringView("title"));
    w.string(c.title);
    if (c.providerID) {
        w.key(QLatin1StringView("providerID"));
        w.string(uuidText(*c.providerID));
    }
    w.key(QLatin1StringView("messages"));
    if (const auto stored = c.messages.stored(); stored && keepStored) {
        w.raw(*stored);
    } else {
        w.beginArray();
        for (const ChatMessage &m : c.messages)
            toJson(w, m);
        w.endArray();
    }
    w.key(QLatin1StringView("createdAt"));
    w.number(c.createdAt);
    w.key(QLatin1StringView("updatedAt"));
    w.number(c.updatedAt);
    w.endObject();
}

void toJson(Json::Writer &w, const Conversation &c)
{
    write(w, c, false);
}

QByteArray encodeStored(const Conversation &c)
{
    Json::Writer w;
    write(w, c, true);
    return w.take();
}

// Everything but the messages, for both decoders.
static bool readHeader(const Json::Value &v, Conversation &c, QString &error)
{
    if (!v.isObject()) {
        error = QStringLiteral("Expected an object for the conversation");
        return false;
    }
    if (!readUuid(v, "id", c.id, error) || !readString(v, "title", c.title, error))
        return false;
    const Json::Value provider = v["providerID"];
    if (provider.isValid() && !provider.isNull()) {
        QUuid id;
        if (!readUuid(v, "providerID", id, error))
            return false;
        c.providerID = id;
    }
    return true;
}

static bool readDates(const Json::Value &v, Conversation &c, QString &error)
{
    return readDouble(v, "createdAt", c.createdAt, error) && readDouble(v, "updatedAt", c.updatedAt, error);
}

bool fromJson(const Json::Value &v, Conversation &out, QString &error)
{
    Conversation c;
    QList<ChatMessage> messages;
    if (!readHeader(v, c, error) || !readList(v, "messages", messages, error) || !readDates(v, c, error))
        return false;
    c.messages = std::move(messages);
    out = std::move(c);
    return true;
}

bool fromStoredJson(const Json::Value &v, const std::shared_ptr<const QByteArray> &buffer, QByteArrayView messagesJson,
                    Conversation &out, QString &error)
{
    if (messagesJson.isEmpty())
        return fromJson(v, out, error);
    Conversation c;
    if (!readHeader(v, c, error))
        return false;
    const Json::Value messages = v["messages"];
    if (!messages.isArray()) {
        QList<ChatMessage> ignored; // the usual description of what is wrong
        return readList(v, "messages", ignored, error);
    }
    qsizetype count = 0;
    const bool valid = messages.forEachElement([&](const Json::Value &message) {
        if (!checkMessageJson(message, error)) {
            error = prefixed(QStringLiteral("messages[%1]").arg(count), error);
            return false;
        }
        ++count;
        return true;
    });
    if (!valid || !readDates(v, c, error))
        return false;
    c.messages = MessageList::fromStored(buffer, messagesJson, count);
    out = std::move(c);
    return true;
}
