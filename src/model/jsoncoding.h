#pragma once

#include "model/json.h"

#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

// Helpers shared by the records' JSON coding. A decode reports its first failure as a text
// that names the key and, for nested records, the path to it ("messages[3].role: ...").
namespace JsonCoding {

// The canonical text of an identifier: upper-case, 36 characters, no braces.
QString uuidText(const QUuid &id);
// Parses only the 36-character form (either case); anything else is nullopt.
std::optional<QUuid> parseUuid(QStringView text);
// Whether parseUuid would take this UTF-8 text.
bool isUuidText(QByteArrayView utf8);

QString missingKey(std::string_view key);
QString wrongType(std::string_view key, const char *expected);
QString prefixed(const QString &path, const QString &error);

bool readString(const Json::Value &obj, std::string_view key, QString &out, QString &error);
bool readUuid(const Json::Value &obj, std::string_view key, QUuid &out, QString &error);
bool readDouble(const Json::Value &obj, std::string_view key, double &out, QString &error);
// Missing or null gives nullopt; any other non-integer fails.
bool readOptionalInt64(const Json::Value &obj, std::string_view key, std::optional<qint64> &out, QString &error);

// The value a list decode starts each element from. Decoding overwrites every field, so a record
// whose default constructor does real work (a message draws a random id, a system call) gives a
// cheaper blank one by specialising this.
template<typename T>
struct DecodeBlank
{
    static T make() { return T(); }
};

} // namespace JsonCoding

// Encodes one record or a list of records; decodes with the record's fromJson.
template<typename T>
QByteArray encodeJson(const T &value, Json::WriteOptions options = Json::WriteOptions::compact())
{
    Json::Writer w(options);
    toJson(w, value);
    return w.take();
}

template<typename T>
void toJson(Json::Writer &w, const QList<T> &list)
{
    w.beginArray();
    for (const T &item : list)
        toJson(w, item);
    w.endArray();
}

template<typename T>
bool fromJson(const Json::Value &v, QList<T> &out, QString &error)
{
    if (!v.isArray()) {
        error = QStringLiteral("Expected an array");
        return false;
    }
    QList<T> result;
    qsizetype index = 0;
    bool ok = true;
    const QList<Json::Value> elements = v.elements();
    result.reserve(elements.size());
    for (const Json::Value &element : elements) {
        T item = JsonCoding::DecodeBlank<T>::make();
        if (!fromJson(element, item, error)) {
            error = JsonCoding::prefixed(QStringLiteral("[%1]").arg(index), error);
            ok = false;
            break;
        }
        result.append(std::move(item));
        ++index;
    }
    if (ok)
        out = std::move(result);
    return ok;
}

// Reads the required list under key, naming the key in any failure.
template<typename T>
bool readList(const Json::Value &obj, std::string_view key, QList<T> &out, QString &error)
{
    const Json::Value v = obj[key];
    if (!v.isValid()) {
        error = JsonCoding::missingKey(key);
        return false;
    }
    if (!fromJson(v, out, error)) {
        error = JsonCoding::prefixed(QString::fromLatin1(key.data(), qsizetype(key.size())), error);
        return false;
    }
    return true;
}

template<typename T>
std::optional<T> decodeJson(QByteArrayView utf8, QString *error = nullptr)
{
    QString message;
    const auto doc = Json::Document::parse(utf8, &message);
    if (doc) {
        T value;
        if (fromJson(doc->root(), value, message))
            return value;
    }
    if (error)
        *error = message;
    return std::nullopt;
}
