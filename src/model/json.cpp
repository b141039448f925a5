#include "model/json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <simdjson.h>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Json {

using simdjson::dom::element;
using simdjson::dom::element_type;

static_assert(std::is_trivially_copyable_v<element>);

struct ValueAccess
{
    static_assert(sizeof(element) <= sizeof(Value::m_element));

    static element get(const Value &v)
    {
        element e;
        if (v.m_valid)
            std::memcpy(static_cast<void *>(&e), v.m_element, sizeof(element));
        return e;
    }

    static Value make(const element &e)
    {
        Value v;
        std::memcpy(v.m_element, static_cast<const void *>(&e), sizeof(element));
        v.m_valid = true;
        return v;
    }
};

// UTF-8 to UTF-16 for strings the parser has already validated: at start-up every message of the
// history goes through here, and plain ASCII, most of any text, goes sixteen bytes at a time.
// Anything unexpected (an encoded surrogate, a malformed sequence) is left to Qt's decoder, so the
// result is always exactly QString::fromUtf8's.
static QString fromUtf8(std::string_view s)
{
    const qsizetype n = qsizetype(s.size());
    const auto *in = reinterpret_cast<const unsigned char *>(s.data());
    QString out(n, Qt::Uninitialized);
    char16_t *o = reinterpret_cast<char16_t *>(out.data());
    char16_t *const begin = o;
    qsizetype i = 0;
    const auto fallback = [&] { return QString::fromUtf8(s.data(), n); };
    while (i < n) {
#if defined(__SSE2__)
        if (i + 16 <= n) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + i));
            const unsigned mask = unsigned(_mm_movemask_epi8(bytes));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(o), _mm_unpacklo_epi8(bytes, _mm_setzero_si128()));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(o + 8), _mm_unpackhi_epi8(bytes, _mm_setzero_si128()));
            const int clean = mask ? __builtin_ctz(mask) : 16;
            o += clean;
            i += clean;
            if (clean == 16)
                continue;
        }
#endif
        const unsigned char c = in[i];
        if (c < 0x80) {
            *o++ = c;
            ++i;
        } else if ((c & 0xE0) == 0xC0 && c >= 0xC2 && i + 1 < n && (in[i + 1] & 0xC0) == 0x80) {
            *o++ = char16_t(((c & 0x1F) << 6) | (in[i + 1] & 0x3F));
            i += 2;
        } else if ((c & 0xF0) == 0xE0 && i + 2 < n && (in[i + 1] & 0xC0) == 0x80 && (in[i + 2] & 0xC0) == 0x80) {
            const char32_t cp = ((c & 0x0F) << 12) | ((in[i + 1] & 0x3F) << 6) | (in[i + 2] & 0x3F);
            if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))
                return fallback();
            *o++ = char16_t(cp);
            i += 3;
        } else if ((c & 0xF8) == 0xF0 && i + 3 < n && (in[i + 1] & 0xC0) == 0x80 && (in[i + 2] & 0xC0) == 0x80 &&
                   (in[i + 3] & 0xC0) == 0x80) {
            const char32_t cp =
                ((c & 0x07) << 18) | ((in[i + 1] & 0x3F) << 12) | ((in[i + 2] & 0x3F) << 6) | (in[i + 3] & 0x3F);
            if (cp < 0x10000 || cp > 0x10FFFF)
                return fallback();
            *o++ = QChar::highSurrogate(cp);
            *o++ = QChar::lowSurrogate(cp);
            i += 4;
        } else {
            return fallback();
        }
    }
    out.resize(o - begin);
    if (out.size() < n - n / 4)
        out.squeeze();
    return out;
}

Value::Type Value::type() const
{
    if (!m_valid)
        return Type::Null;
    switch (ValueAccess::get(*this).type()) {
    case element_type::ARRAY:
        return Type::Array;
    case element_type::OBJECT:
        return Type::Object;
    case element_type::INT64:
    case element_type::UINT64:
    case element_type::DOUBLE:
        return Type::Number;
    case element_type::STRING:
        return Type::String;
    case element_type::BOOL:
        return Type::Bool;
    case element_type::NULL_VALUE:
        break;
    }
    return Type::Null;
}

bool Value::toBool() const
{
    bool b = false;
    if (m_valid && ValueAccess::get(*this).get_bool().get(b) == simdjson::SUCCESS)
        return b;
    return false;
}

double Value::toDouble() const
{
    if (!m_valid)
        return 0;
    const element e = ValueAccess::get(*this);
    switch (e.type()) {
    case element_type::INT64:
        return double(int64_t(e));
    case element_type::UINT64:
        return double(uint64_t(e));
    case element_type::DOUBLE:
        return double(e);
    default:
        return 0;
    }
}

std::optional<qint64> Value::toInt64() const
{
    if (!m_valid)
        return std::nullopt;
    const element e = ValueAccess::get(*this);
    switch (e.type()) {
    case element_type::INT64:
        return qint64(int64_t(e));
    case element_type::UINT64: {
        const uint64_t u = uint64_t(e);
        if (u > uint64_t(std::numeric_limits<qint64>::max()))
            return std::nullopt;
        return qint64(u);
    }
    case element_type::DOUBLE: {
        // Doubles strictly between -2^63 and 2^63 fit. -2^63 itself is refused too: it is also what
        // an integer literal just beyond the 64-bit range rounds to once read as a double.
        const double d = double(e);
        if (!std::isfinite(d) || d != std::trunc(d) || d <= -9223372036854775808.0 || d >= 9223372036854775808.0)
            return std::nullopt;
        return qint64(d);
    }
    default:
        return std::nullopt;
    }
}

QString Value::toString() const
{
    std::string_view s;
    if (m_valid && ValueAccess::get(*this).get_string().get(s) == simdjson::SUCCESS)
        return fromUtf8(s);
    return {};
}

QByteArrayView Value::stringUtf8() const
{
    std::string_view s;
    if (m_valid && ValueAccess::get(*this).get_string().get(s) == simdjson::SUCCESS)
        return QByteArrayView(s.data(), qsizetype(s.size()));
    return {};
}

Value Value::operator[](std::string_view key) const
{
    if (!m_valid)
        return {};
    simdjson::dom::object obj;
    if (ValueAccess::get(*this).get_object().get(obj) != simdjson::SUCCESS)
        return {};
    element found;
    if (obj.at_key(key).get(found) != simdjson::SUCCESS)
        return {};
    return ValueAccess::make(found);
}

qsizetype Value::size() const
{
    if (!m_valid)
        return 0;
    const element e = ValueAccess::get(*this);
    simdjson::dom::array arr;
    if (e.get_array().get(arr) == simdjson::SUCCESS) {
        qsizetype n = 0;
        for ([[maybe_unused]] element child : arr)
            ++n;
        return n;
    }
    simdjson::dom::object obj;
    if (e.get_object().get(obj) == simdjson::SUCCESS) {
        qsizetype n = 0;
        for ([[maybe_unused]] auto member : obj)
            ++n;
        return n;
    }
    return 0;
}

QList<Value> Value::elements() const
{
    QList<Value> out;
    simdjson::dom::array arr;
    if (!m_valid || ValueAccess::get(*this).get_array().get(arr) != simdjson::SUCCESS)
        return out;
    for (element child : arr)
        out.append(ValueAccess::make(child));
    return out;
}

bool Value::forEachElement(const std::function<bool(const Value &)> &f) const
{
    simdjson::dom::array arr;
    if (!m_valid || ValueAccess::get(*this).get_array().get(arr) != simdjson::SUCCESS)
        return false;
    for (element child : arr) {
        if (!f(ValueAccess::make(child)))
            return false;
    }
    return true;
}

QList<std::pair<QString, Value>> Value::members() const
{
    QList<std::pair<QString, Value>> out;
    simdjson::dom::object obj;
    if (!m_valid || ValueAccess::get(*this).get_object().get(obj) != simdjson::SUCCESS)
        return out;
    for (auto member : obj)
        out.append({fromUtf8(member.key), ValueAccess::make(member.value)});
    return out;
}

struct Parser::Private
{
    simdjson::dom::parser parser;
};

namespace {

// simdjson refuses whole-number literals beyond 64 bits, failing the whole document. JSON allows
// them, and a stray huge count must only be "not a 64-bit count", so such literals are re-read
// as doubles: ".0" is appended to every integer literal outside strings that fits in no 64-bit type.
// Only the rare failing input pays for this.
bool beyond64Bits(QByteArrayView digits, bool negative)
{
    while (digits.size() > 1 && digits.front() == '0')
        digits = digits.sliced(1);
    const QByteArrayView limit =
        negative ? QByteArrayView("9223372036854775808") : QByteArrayView("18446744073709551615");
    if (digits.size() != limit.size())
        return digits.size() > limit.size();
    return digits.compare(limit) > 0;
}

QByteArray widenBigIntegers(QByteArrayView in)
{
    QByteArray out;
    out.reserve(in.size() + 16);
    bool inString = false;
    qsizetype i = 0;
    const qsizetype n = in.size();
    while (i < n) {
        const char c = in[i];
        if (inString) {
            out.append(c);
            if (c == '\\' && i + 1 < n) {
                out.append(in[++i]);
            } else if (c == '"') {
                inString = false;
            }
            ++i;
            continue;
        }
        if (c == '"') {
            inString = true;
            out.append(c);
            ++i;
            continue;
        }
        if (c == '-' || (c >= '0' && c <= '9')) {
            qsizetype j = i;
            if (in[j] == '-')
                ++j;
            const qsizetype digitsStart = j;
            while (j < n && in[j] >= '0' && in[j] <= '9')
                ++j;
            const bool plainInteger = j >= n || (in[j] != '.' && in[j] != 'e' && in[j] != 'E');
            out.append(in.sliced(i, j - i));
            if (plainInteger && beyond64Bits(in.sliced(digitsStart, j - digitsStart), in[i] == '-'))
                out.append(".0");
            i = j;
            continue;
        }
        out.append(c);
        ++i;
    }
    return out;
}

} // namespace

Parser::Parser()
    : d(std::make_unique<Private>())
{}

Parser::~Parser() = default;

static_assert(parsePadding >= qsizetype(simdjson::SIMDJSON_PADDING));

Value Parser::parse(QByteArrayView utf8, QString *error)
{
    return parse(utf8, error, true);
}

Value Parser::parsePadded(QByteArrayView utf8, QString *error)
{
    return parse(utf8, error, false);
}

Value Parser::parse(QByteArrayView utf8, QString *error, bool copyInput)
{
    element root;
    auto code = d->parser.parse(utf8.data(), size_t(utf8.size()), copyInput).get(root);
    if (code == simdjson::NUMBER_ERROR) {
        const QByteArray widened = widenBigIntegers(utf8);
        code = d->parser.parse(widened.constData(), size_t(widened.size()), true).get(root);
    }
    if (code != simdjson::SUCCESS) {
        if (error)
            *error = QString::fromLatin1(simdjson::error_message(code));
        return {};
    }
    return ValueAccess::make(root);
}

qsizetype Parser::capacity() const
{
    return qsizetype(d->parser.capacity());
}

void Parser::releaseBuffersAbove(qsizetype keepBytes)
{
    if (capacity() > keepBytes)
        d->parser = simdjson::dom::parser();
}

std::optional<Document> Document::parse(QByteArrayView utf8, QString *error)
{
    return parse(utf8, error, true);
}

std::optional<Document> Document::parsePadded(QByteArrayView utf8, QString *error)
{
    return parse(utf8, error, false);
}

std::optional<Document> Document::parse(QByteArrayView utf8, QString *error, bool copyInput)
{
    Document doc;
    doc.m_parser = std::make_shared<Parser>();
    doc.m_root = doc.m_parser->parse(utf8, error, copyInput);
    if (!doc.m_root.isValid())
        return std::nullopt;
    return doc;
}

// ---------------------------------------------------------------------------------------------
// Writing

namespace {

// Bytes that need an escape inside a JSON string: control characters, quote and backslash.
// The slash is handled apart because escaping it is an option.
constexpr bool needsEscape(unsigned char c)
{
    return c < 0x20 || c == '"' || c == '\\';
}

char *writeEscape(char *p, char16_t c)
{
    static const char hex[] = "0123456789abcdef";
    *p++ = '\\';
    switch (c) {
    case u'"':
        *p++ = '"';
        break;
    case u'\\':
        *p++ = '\\';
        break;
    case u'/':
        *p++ = '/';
        break;
    case u'\n':
        *p++ = 'n';
        break;
    case u'\r':
        *p++ = 'r';
        break;
    case u'\t':
        *p++ = 't';
        break;
    case u'\b':
        *p++ = 'b';
        break;
    case u'\f':
        *p++ = 'f';
        break;
    default:
        *p++ = 'u';
        *p++ = '0';
        *p++ = '0';
        *p++ = hex[(c >> 4) & 0xF];
        *p++ = hex[c & 0xF];
    }
    return p;
}

void appendEscapedUtf8(QByteArray &out, const char *s, qsizetype n, bool escapeSlashes)
{
    out.append('"');
    qsizetype runStart = 0;
    for (qsizetype i = 0; i < n; ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (!needsEscape(c) && !(escapeSlashes && c == '/'))
            continue;
        out.append(s + runStart, i - runStart);
        runStart = i + 1;
        char escape[6];
        out.append(escape, writeEscape(escape, c) - escape);
    }
    out.append(s + runStart, n - runStart);
    out.append('"');
}

// Makes room for `extra` more bytes at the end of out and returns where they start. Grows the
// buffer geometrically: callers ask for a worst case per string, and an exact reserve each time
// would copy the whole document again for every string.
char *appendSpace(QByteArray &out, qsizetype extra)
{
    const qsizetype old = out.size();
    const qsizetype needed = old + extra;
    if (needed > out.capacity())
        out.reserve(std::max(needed, out.capacity() * 2));
    out.resize(needed);
    return out.data() + old;
}

// UTF-16 straight to escaped UTF-8 in the output, in one pass and without a temporary: the
// conversation file is tens of megabytes of message text, and this loop is most of saving it.
// An unpaired surrogate becomes '?', as QString::toUtf8 makes it.
void appendEscapedUtf16(QByteArray &out, QStringView value, bool escapeSlashes)
{
    const qsizetype n = value.size();
    const qsizetype start = out.size();
    char *const begin = appendSpace(out, 2 + 6 * n);
    char *p = begin;
    *p++ = '"';
    const char16_t *u = value.utf16();
    qsizetype i = 0;
#if defined(__SSE2__)
    const __m128i nonAscii = _mm_set1_epi16(short(0xFF80));
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i slash = _mm_set1_epi8(escapeSlashes ? '/' : '"');
    const __m128i control = _mm_set1_epi8(0x20);
#endif
    while (i < n) {
#if defined(__SSE2__)
        // Sixteen units at a time: narrowed to bytes and stored whole, but only the plain ASCII
        // prefix that needs no escape is kept; the unit that stopped it goes the slow way below.
        if (i + 16 <= n) {
            const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i *>(u + i));
            const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i *>(u + i + 8));
            const __m128i asciiLo = _mm_cmpeq_epi16(_mm_and_si128(lo, nonAscii), _mm_setzero_si128());
            const __m128i asciiHi = _mm_cmpeq_epi16(_mm_and_si128(hi, nonAscii), _mm_setzero_si128());
            const __m128i bytes = _mm_packus_epi16(lo, hi);
            __m128i bad = _mm_andnot_si128(_mm_packs_epi16(asciiLo, asciiHi), _mm_set1_epi8(-1));
            bad = _mm_or_si128(bad, _mm_cmplt_epi8(bytes, control));
            bad = _mm_or_si128(bad, _mm_cmpeq_epi8(bytes, quote));
            bad = _mm_or_si128(bad, _mm_cmpeq_epi8(bytes, backslash));
            bad = _mm_or_si128(bad, _mm_cmpeq_epi8(bytes, slash));
            const unsigned mask = unsigned(_mm_movemask_epi8(bad));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(p), bytes);
            if (mask == 0) {
                p += 16;
                i += 16;
                continue;
            }
            const int clean = __builtin_ctz(mask);
            p += clean;
            i += clean;
        }
#endif
        const char16_t c = u[i++];
        if (c < 0x80) {
            if (needsEscape(static_cast<unsigned char>(c)) || (escapeSlashes && c == u'/'))
                p = writeEscape(p, c);
            else
                *p++ = char(c);
        } else if (c < 0x800) {
            *p++ = char(0xC0 | (c >> 6));
            *p++ = char(0x80 | (c & 0x3F));
        } else if (QChar::isHighSurrogate(c) && i < n && QChar::isLowSurrogate(u[i])) {
            const char32_t cp = QChar::surrogateToUcs4(c, u[i++]);
            *p++ = char(0xF0 | (cp >> 18));
            *p++ = char(0x80 | ((cp >> 12) & 0x3F));
            *p++ = char(0x80 | ((cp >> 6) & 0x3F));
            *p++ = char(0x80 | (cp & 0x3F));
        } else if (QChar::isSurrogate(c)) {
            *p++ = '?';
        } else {
            *p++ = char(0xE0 | (c >> 12));
            *p++ = char(0x80 | ((c >> 6) & 0x3F));
            *p++ = char(0x80 | (c & 0x3F));
        }
    }
    *p++ = '"';
    out.resize(start + (p - begin));
}

} // namespace

void appendQuoted(QByteArray &out, QStringView value, bool escapeSlashes)
{
    appendEscapedUtf16(out, value, escapeSlashes);
}

QByteArray formatDouble(double value)
{
    if (!std::isfinite(value))
        return QByteArrayLiteral("null");
    char buf[64];
    auto result = std::to_chars(buf, buf + sizeof buf, value);
    // The shortest form of a large whole double can be a long run of digits, which many readers
    // (ours included) take for an integer that does not fit; scientific form stays a double.
    if (std::fabs(value) >= 1e16 &&
        std::find_if(buf, result.ptr, [](char c) { return c == '.' || c == 'e'; }) == result.ptr)
        result = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
    return QByteArray(buf, result.ptr - buf);
}

struct Writer::Private
{
    struct Member
    {
        QString key;
        QByteArray value;
    };
    struct Frame
    {
        bool object = false;
        bool first = true;
        QList<Member> members; // only for objects while sorting keys
    };

    WriteOptions options;
    QByteArray out;
    std::vector<Frame> stack;
    bool afterKey = false;

    bool sorting(const Frame &f) const { return f.object && options.sortedKeys; }

    // The buffer that the next token goes to: the value of the newest member of the nearest
    // object whose keys are being sorted, or the output itself.
    QByteArray &target()
    {
        for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
            if (sorting(*it))
                return it->members.last().value;
        }
        return out;
    }

    void newline(QByteArray &buf, std::size_t depth) const
    {
        buf.append('\n');
        buf.append(QByteArray(qsizetype(depth * 2), ' '));
    }

    // Called before every value: writes the separator and indentation an array element needs.
    QByteArray &beginValue()
    {
        if (afterKey || stack.empty()) {
            afterKey = false;
            return target();
        }
        Frame &top = stack.back();
        QByteArray &buf = target();
        if (!top.first)
            buf.append(',');
        top.first = false;
        if (options.pretty)
            newline(buf, stack.size());
        return buf;
    }

    // Keys are short and, in the stored forms, plain ASCII: a key is only copied into a QString
    // when its object's members are being collected for sorting.
    template<typename Name>
    void writeKey(Name name)
    {
        Frame &top = stack.back();
        if (sorting(top)) {
            top.members.append({name.toString(), {}});
        } else {
            QByteArray &buf = target();
            if (!top.first)
                buf.append(',');
            top.first = false;
            if (options.pretty)
                newline(buf, stack.size());
            appendKey(buf, name);
            buf.append(options.pretty ? " : " : ":");
        }
        afterKey = true;
    }

    void appendKey(QByteArray &buf, QStringView name) const { appendQuoted(buf, name, options.escapeSlashes); }
    void appendKey(QByteArray &buf, QLatin1StringView name) const
    {
        for (const char c : name) {
            if (static_cast<unsigned char>(c) >= 0x80)
                return appendQuoted(buf, QString(name), options.escapeSlashes);
        }
        appendEscapedUtf8(buf, name.data(), name.size(), options.escapeSlashes);
    }
};

Writer::Writer(WriteOptions options)
    : d(std::make_unique<Private>())
{
    d->options = options;
    d->stack.reserve(16);
}

Writer::~Writer() = default;

void Writer::reserve(qsizetype bytes)
{
    d->out.reserve(bytes);
}

void Writer::beginObject()
{
    d->beginValue().append('{');
    d->stack.push_back({true, true, {}});
}

void Writer::endObject()
{
    Private::Frame frame = std::move(d->stack.back());
    d->stack.pop_back();
    QByteArray &buf = d->target();
    const std::size_t depth = d->stack.size();
    if (d->sorting(frame)) {
        std::stable_sort(frame.members.begin(), frame.members.end(),
                         [](const Private::Member &a, const Private::Member &b) { return a.key < b.key; });
        bool first = true;
        for (const auto &m : frame.members) {
            if (!first)
                buf.append(',');
            first = false;
            if (d->options.pretty)
                d->newline(buf, depth + 1);
            appendQuoted(buf, m.key, d->options.escapeSlashes);
            buf.append(d->options.pretty ? " : " : ":");
            buf.append(m.value);
        }
        if (d->options.pretty && !frame.members.isEmpty())
            d->newline(buf, depth);
    } else if (d->options.pretty && !frame.first) {
        d->newline(buf, depth);
    }
    buf.append('}');
}

void Writer::beginArray()
{
    d->beginValue().append('[');
    d->stack.push_back({false, true, {}});
}

void Writer::endArray()
{
    const bool empty = d->stack.back().first;
    d->stack.pop_back();
    QByteArray &buf = d->target();
    if (d->options.pretty && !empty)
        d->newline(buf, d->stack.size());
    buf.append(']');
}

void Writer::key(QStringView name)
{
    d->writeKey(name);
}

void Writer::key(QLatin1StringView name)
{
    d->writeKey(name);
}

void Writer::null()
{
    d->beginValue().append("null", 4);
}

void Writer::boolean(bool value)
{
    if (value)
        d->beginValue().append("true", 4);
    else
        d->beginValue().append("false", 5);
}

void Writer::integer(qint64 value)
{
    char buf[24];
    const auto result = std::to_chars(buf, buf + sizeof buf, value);
    d->beginValue().append(buf, result.ptr - buf);
}

void Writer::number(double value)
{
    d->beginValue().append(formatDouble(value));
}

void Writer::string(QStringView value)
{
    appendEscapedUtf16(d->beginValue(), value, d->options.escapeSlashes);
}

void Writer::string(QLatin1StringView value)
{
    string(QString(value));
}

void Writer::stringUtf8(QByteArrayView value)
{
    appendEscapedUtf8(d->beginValue(), value.data(), value.size(), d->options.escapeSlashes);
}

void Writer::raw(QByteArrayView json)
{
    d->beginValue().append(json);
}

const QByteArray &Writer::data() const
{
    return d->out;
}

QByteArray Writer::take()
{
    return std::exchange(d->out, {});
}

} // namespace Json
