#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QStringView>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

// The program's one JSON module. Reading goes through simdjson (the whole history is parsed at
// every start, so the parser's speed is the start-up time); writing is our own streaming writer
// with the two settings the program needs: compact, and pretty with sorted keys and escaped '/'.
namespace Json {

class Document;

// A read-only view of one value inside a parsed Document. Valid only while the Document (or
// Parser) it came from is alive and has not parsed anything else. Cheap to copy.
class Value
{
public:
    enum class Type { Null, Bool, Number, String, Array, Object };

    Value() = default;

    bool isValid() const { return m_valid; }
    Type type() const;
    bool isNull() const { return type() == Type::Null; }
    bool isBool() const { return type() == Type::Bool; }
    bool isNumber() const { return type() == Type::Number; }
    bool isString() const { return type() == Type::String; }
    bool isArray() const { return type() == Type::Array; }
    bool isObject() const { return type() == Type::Object; }

    bool toBool() const;
    double toDouble() const;
    // A number that is a whole value within the signed 64-bit range: integers exactly, and
    // doubles without a fraction that fit. Anything else (fractions, strings, overflow) is nullopt.
    std::optional<qint64> toInt64() const;
    QString toString() const;
    // The string's raw UTF-8 bytes, without a copy into UTF-16.
    QByteArrayView stringUtf8() const;

    // Object member lookup; an invalid Value when this is no object or the key is missing.
    Value operator[](std::string_view key) const;
    bool contains(std::string_view key) const { return (*this)[key].isValid(); }

    qsizetype size() const; // elements of an array or members of an object, else 0
    QList<Value> elements() const;
    // Calls f for every element of an array, in order, until f returns false. Returns false
    // when this is no array or f stopped early.
    bool forEachElement(const std::function<bool(const Value &)> &f) const;
    QList<std::pair<QString, Value>> members() const;

private:
    friend class Parser;
    friend struct ValueAccess;
    // Holds a simdjson::dom::element (a document pointer and a tape position), kept opaque so
    // that simdjson's large header stays out of every file that reads JSON.
    alignas(void *) unsigned char m_element[2 * sizeof(void *)] = {};
    bool m_valid = false;
};

// How many readable bytes parsePadded() needs after the end of its input.
constexpr qsizetype parsePadding = 64;

// A reusable parser. parse() returns the root of the newest document; earlier Values become
// invalid. Keep one Parser per hot loop (stream lines) to reuse its buffers.
class Parser
{
public:
    Parser();
    ~Parser();
    Parser(const Parser &) = delete;
    Parser &operator=(const Parser &) = delete;

    // Returns an invalid Value and sets *error when the bytes are not one valid JSON document
    // in UTF-8.
    Value parse(QByteArrayView utf8, QString *error = nullptr);
    // The same without first copying the input: utf8 must be followed in memory by at least
    // parsePadding readable bytes (a QByteArray reserved that much larger than its content).
    // Worth it only for large inputs read from disk.
    Value parsePadded(QByteArrayView utf8, QString *error = nullptr);

    // The largest document the parser's buffers fit without growing (they grow to fit each input).
    qsizetype capacity() const;
    // Gives the buffers back when they have grown beyond keepBytes, so that one huge input does
    // not hold its memory for the parser's whole life. Invalidates the Values of the last parse.
    void releaseBuffersAbove(qsizetype keepBytes);

private:
    friend class Document;
    Value parse(QByteArrayView utf8, QString *error, bool copyInput);

    struct Private;
    std::unique_ptr<Private> d;
};

// A parsed document that owns its storage.
class Document
{
public:
    static std::optional<Document> parse(QByteArrayView utf8, QString *error = nullptr);
    // See Parser::parsePadded. The document does not refer to the input once parsed.
    static std::optional<Document> parsePadded(QByteArrayView utf8, QString *error = nullptr);
    Value root() const { return m_root; }

private:
    Document() = default;
    static std::optional<Document> parse(QByteArrayView utf8, QString *error, bool copyInput);
    std::shared_ptr<Parser> m_parser;
    Value m_root;
};

struct WriteOptions
{
    bool pretty = false;       // two-space indent, one member per line, "key" : value
    bool sortedKeys = false;   // members of every object in lexicographic key order
    bool escapeSlashes = true; // "/" written as "\/", as the standard encoder does

    static WriteOptions compact() { return {false, false, true}; }
    static WriteOptions prettySorted() { return {true, true, true}; }
};

// A streaming writer. Calls must form one well-nested value; the result is UTF-8.
// Numbers: integers exactly; doubles in the shortest form that reads back to the same double.
class Writer
{
public:
    explicit Writer(WriteOptions options = WriteOptions::compact());
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    void reserve(qsizetype bytes);

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(QStringView name);
    void key(QLatin1StringView name);

    void null();
    void boolean(bool value);
    void integer(qint64 value);
    void number(double value);
    void string(QStringView value);
    void string(QLatin1StringView value);
    void stringUtf8(QByteArrayView value);
    // Copies an already serialised value (from another compact Writer) into this one verbatim.
    void raw(QByteArrayView json);

    const QByteArray &data() const;
    QByteArray take();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

// Appends the JSON string literal for value (quotes included) to out.
void appendQuoted(QByteArray &out, QStringView value, bool escapeSlashes = false);
// The shortest decimal text that reads back as the same double ("725760000", "0.1", "1e+300").
QByteArray formatDouble(double value);

} // namespace Json
