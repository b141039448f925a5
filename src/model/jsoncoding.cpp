#include "model/jsoncoding.h"

#include <array>

namespace JsonCoding {

QString uuidText(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

std::optional<QUuid> parseUuid(QStringView text)
{
    // Only the canonical 36-character shape; QUuid alone would also take braces.
    if (text.size() != 36)
        return std::nullopt;
    for (qsizetype i = 0; i < 36; ++i) {
        const char16_t c = text[i].unicode();
        const bool hyphenSlot = i == 8 || i == 13 || i == 18 || i == 23;
        if (hyphenSlot ? c != u'-'
                       : !((c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F')))
            return std::nullopt;
    }
    return QUuid::fromString(text);
}

bool isUuidText(QByteArrayView utf8)
{
    // Every message of a history is checked at start: a table instead of a chain of comparisons.
    static constexpr auto hexDigit = [] {
        std::array<bool, 256> table = {};
        for (int c = '0'; c <= '9'; ++c)
            table[size_t(c)] = true;
        for (int c = 'a'; c <= 'f'; ++c)
            table[size_t(c)] = table[size_t(c - 'a' + 'A')] = true;
        return table;
    }();
    if (utf8.size() != 36)
        return false;
    const auto *p = reinterpret_cast<const unsigned char *>(utf8.data());
    bool ok = p[8] == '-' && p[13] == '-' && p[18] == '-' && p[23] == '-';
    for (int i = 0; i < 36; ++i)
        ok &= hexDigit[p[i]] || i == 8 || i == 13 || i == 18 || i == 23;
    return ok;
}

QString missingKey(std::string_view key)
{
    return QStringLiteral("Missing key \"%1\"").arg(QLatin1StringView(key.data(), qsizetype(key.size())));
}

QString wrongType(std::string_view key, const char *expected)
{
    return QStringLiteral("\"%1\": expected %2")
        .arg(QLatin1StringView(key.data(), qsizetype(key.size())), QLatin1StringView(expected));
}

QString prefixed(const QString &path, const QString &error)
{
    if (error.startsWith(u'['))
        return path + error;
    return path + QStringLiteral(": ") + error;
}

static bool present(const Json::Value &v)
{
    return v.isValid() && !v.isNull();
}

bool readString(const Json::Value &obj, std::string_view key, QString &out, QString &error)
{
    const Json::Value v = obj[key];
    if (!v.isValid()) {
        error = missingKey(key);
        return false;
    }
    if (!v.isString()) {
        error = wrongType(key, "a string");
        return false;
    }
    out = v.toString();
    return true;
}

bool readUuid(const Json::Value &obj, std::string_view key, QUuid &out, QString &error)
{
    // Every message carries an id, so the common well-formed case skips the UTF-16 copy.
    const Json::Value value = obj[key];
    if (value.isString()) {
        const QByteArrayView utf8 = value.stringUtf8();
        if (utf8.size() == 36) {
            QChar units[36];
            for (qsizetype i = 0; i < 36; ++i)
                units[i] = QLatin1Char(utf8[i]);
            if (const auto id = parseUuid(QStringView(units, 36))) {
                out = *id;
                return true;
            }
        }
    }
    QString text;
    if (!readString(obj, key, text, error))
        return false;
    const auto id = parseUuid(text);
    if (!id) {
        error = QStringLiteral("\"%1\": \"%2\" is not a UUID")
                    .arg(QLatin1StringView(key.data(), qsizetype(key.size())), text);
        return false;
    }
    out = *id;
    return true;
}

bool readDouble(const Json::Value &obj, std::string_view key, double &out, QString &error)
{
    const Json::Value v = obj[key];
    if (!v.isValid()) {
        error = missingKey(key);
        return false;
    }
    if (!v.isNumber()) {
        error = wrongType(key, "a number");
        return false;
    }
    out = v.toDouble();
    return true;
}

bool readOptionalInt64(const Json::Value &obj, std::string_view key, std::optional<qint64> &out, QString &error)
{
    const Json::Value v = obj[key];
    if (!present(v)) {
        out.reset();
        return true;
    }
    const auto n = v.toInt64();
    if (!n) {
        error = wrongType(key, "a whole number within 64 bits");
        return false;
    }
    out = n;
    return true;
}

} // namespace JsonCoding
