#include "model/conversation.h"

#include "model/json.h"
#include "model/jsoncoding.h"

#include <QTextBoundaryFinder>
#include <QTimeZone>

#include <chrono>
#include <cmath>

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

std::optional<QString> Conversation::derivedTitle(const QList<ChatMessage> &messages)
{
    for (const ChatMessage &m : messages) {
        if (m.role != ChatRole::user)
            continue;
        QString text = m.content.trimmed();
        if (text.isEmpty())
            return std::nullopt;
        text.replace(u'\n', u' ');

        constexpr int maxCharacters = 48;
        QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
        int count = 0;
        while (finder.toNextBoundary() != -1) {
            if (++count == maxCharacters)
                return text.left(finder.position());
        }
        return text;
    }
    return std::nullopt;
}

void toJson(Json::Writer &w, const Conversation &c)
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
    w.beginArray();
    for (const ChatMessage &m : c.messages)
        toJson(w, m);
    w.endArray();
    w.key(QLatin1StringView("createdAt"));
    w.number(c.createdAt);
    w.key(QLatin1StringView("updatedAt"));
    w.number(c.updatedAt);
    w.endObject();
}

bool fromJson(const Json::Value &v, Conversation &out, QString &error)
{
    if (!v.isObject()) {
        error = QStringLiteral("Expected an object for the conversation");
        return false;
    }
    Conversation c;
    if (!readUuid(v, "id", c.id, error) || !readString(v, "title", c.title, error))
        return false;
    const Json::Value provider = v["providerID"];
    if (provider.isValid() && !provider.isNull()) {
        QUuid id;
        if (!readUuid(v, "providerID", id, error))
            return false;
        c.providerID = id;
    }
    if (!readList(v, "messages", c.messages, error))
        return false;
    if (!readDouble(v, "createdAt", c.createdAt, error) || !readDouble(v, "updatedAt", c.updatedAt, error))
        return false;
    out = std::move(c);
    return true;
}
