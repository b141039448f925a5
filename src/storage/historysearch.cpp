#include "storage/historysearch.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMetaObject>
#include <QMutex>
#include <QPointer>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <array>
#include <cstring>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

using TextSearch::Query;
using TextSearch::Range;

namespace {

constexpr int contextBefore = 14;
constexpr int contextAfter = 90;

// Reused by one worker across conversations, so that a search makes no allocation per message.
struct Scratch
{
    QByteArray unescaped;
    QString text;
    QString folded;
    // One message folded, as UTF-8, and the query's words in the same form.
    QByteArray foldedBytes;
    QList<QByteArray> words;
};

void appendUtf8(QByteArray &out, char32_t c)
{
    if (c < 0x80) {
        out.append(char(c));
    } else if (c < 0x800) {
        out.append(char(0xC0 | (c >> 6)));
        out.append(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.append(char(0xE0 | (c >> 12)));
        out.append(char(0x80 | ((c >> 6) & 0x3F)));
        out.append(char(0x80 | (c & 0x3F)));
    } else {
        out.append(char(0xF0 | (c >> 18)));
        out.append(char(0x80 | ((c >> 12) & 0x3F)));
        out.append(char(0x80 | ((c >> 6) & 0x3F)));
        out.append(char(0x80 | (c & 0x3F)));
    }
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The four hex digits at position at, as a UTF-16 unit.
std::optional<char16_t> hexUnit(QByteArrayView text, qsizetype at)
{
    if (at < 0 || at + 4 > text.size())
        return std::nullopt;
    int value = 0;
    for (qsizetype i = at; i < at + 4; ++i) {
        const int d = hexValue(text[i]);
        if (d < 0)
            return std::nullopt;
        value = value * 16 + d;
    }
    return char16_t(value);
}

// The text of a JSON string's body (between its quotes), as stored: escapes resolved.
void decodeJsonString(QByteArrayView body, Scratch &scratch)
{
    if (!std::memchr(body.data(), '\\', size_t(body.size()))) {
        scratch.text = QString::fromUtf8(body);
        return;
    }
    QByteArray &out = scratch.unescaped;
    out.clear();
    out.reserve(body.size());
    for (qsizetype i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (c != '\\' || i + 1 >= body.size()) {
            out.append(c);
            continue;
        }
        const char e = body[++i];
        switch (e) {
        case 'n':
            out.append('\n');
            break;
        case 't':
            out.append('\t');
            break;
        case 'r':
            out.append('\r');
            break;
        case 'b':
            out.append('\b');
            break;
        case 'f':
            out.append('\f');
            break;
        case 'u': {
            const std::optional<char16_t> high = hexUnit(body, i + 1);
            if (!high) {
                out.append(e);
                break;
            }
            i += 4;
            char32_t code = *high;
            if (QChar::isHighSurrogate(*high) && i + 2 < body.size() && body[i + 1] == '\\' && body[i + 2] == 'u') {
                if (const std::optional<char16_t> low = hexUnit(body, i + 3); low && QChar::isLowSurrogate(*low)) {
                    code = QChar::surrogateToUcs4(*high, *low);
                    i += 6;
                }
            }
            if (QChar::isSurrogate(code))
                code = QChar::ReplacementCharacter;
            appendUtf8(out, code);
            break;
        }
        default:
            out.append(e);
            break; // '"', '\\' and '/'
        }
    }
    scratch.text = QString::fromUtf8(out);
}

// Folded text as UTF-8, so that the history's bytes are searched as they are read, with no
// UTF-16 copy of them: each UTF-16 unit folds as TextSearch folds it, a surrogate pair is one
// 4-byte sequence and a lone surrogate its own 3 bytes, so a word is found in the bytes exactly
// where it is found in the folded text.
inline char *putUnit(char *out, char16_t unit)
{
    if (unit < 0x80) {
        *out++ = char(unit);
    } else if (unit < 0x800) {
        *out++ = char(0xC0 | (unit >> 6));
        *out++ = char(0x80 | (unit & 0x3F));
    } else {
        *out++ = char(0xE0 | (unit >> 12));
        *out++ = char(0x80 | ((unit >> 6) & 0x3F));
        *out++ = char(0x80 | (unit & 0x3F));
    }
    return out;
}

inline char *putCodePoint(char *out, char32_t c)
{
    if (c < 0x10000)
        return putUnit(out, char16_t(c));
    *out++ = char(0xF0 | (c >> 18));
    *out++ = char(0x80 | ((c >> 12) & 0x3F));
    *out++ = char(0x80 | ((c >> 6) & 0x3F));
    *out++ = char(0x80 | (c & 0x3F));
    return out;
}

const std::array<char, 128> &asciiFold()
{
    static const std::array<char, 128> table = [] {
        std::array<char, 128> t{};
        for (int i = 0; i < 128; ++i)
            t[std::size_t(i)] = char(TextSearch::foldUnit(char16_t(i)));
        return t;
    }();
    return table;
}

// Appends UTF-16 text as folded UTF-8 (fold false: text already folded, as a query's words are).
void appendFoldedUtf16(QStringView text, QByteArray &out, bool fold)
{
    const qsizetype at = out.size();
    out.resize(at + text.size() * 3);
    char *o = out.data() + at;
    const char16_t *p = text.utf16();
    const char16_t *const end = p + text.size();
    while (p < end) {
        const char16_t u = *p++;
        if (QChar::isHighSurrogate(u) && p < end && QChar::isLowSurrogate(*p)) {
            o = putCodePoint(o, QChar::surrogateToUcs4(u, *p++));
            continue;
        }
        o = putUnit(o, fold ? TextSearch::foldUnit(u) : u);
    }
    out.truncate(o - out.constData());
}

// Appends the text of a JSON string's body (between its quotes), escapes resolved, as folded
// UTF-8. The body is valid UTF-8: the history was checked when it was read.
void appendFoldedJson(QByteArrayView body, QByteArray &out)
{
    const std::array<char, 128> &ascii = asciiFold();
    const qsizetype at = out.size();
    // Nothing grows by more than half: a 2-byte letter may fold to a 3-byte one.
    out.resize(at + body.size() + body.size() / 2 + 4);
    char *o = out.data() + at;
    const auto *p = reinterpret_cast<const uchar *>(body.data());
    const auto *const end = p + body.size();
    char16_t pendingHigh = 0; // a \u high surrogate waiting for its low half
    const auto flushHigh = [&] {
        if (pendingHigh) {
            o = putUnit(o, pendingHigh);
            pendingHigh = 0;
        }
    };
    constexpr quint64 ones = 0x0101010101010101ULL;
    constexpr quint64 highs = 0x8080808080808080ULL;
    while (p < end) {
        // Most of a history is ASCII without escapes: many bytes at a time, upper case lowered
        // (which is all folding does to ASCII). A block that holds something else is still copied
        // up to that byte, which is then handled on its own, as are the bytes after it until the
        // next plain one.
        const auto plain = [](uchar c) { return c < 0x80 && c != '\\'; };
        if (!pendingHigh && plain(*p)) {
#if defined(__SSE2__)
            while (end - p >= 16) {
                const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
                // Bytes of 0x80 and above are negative here, so never taken for capitals.
                const __m128i capital =
                    _mm_and_si128(_mm_cmpgt_epi8(x, _mm_set1_epi8('A' - 1)), _mm_cmplt_epi8(x, _mm_set1_epi8('Z' + 1)));
                _mm_storeu_si128(reinterpret_cast<__m128i *>(o),
                                 _mm_or_si128(x, _mm_and_si128(capital, _mm_set1_epi8(0x20))));
                const unsigned stop =
                    unsigned(_mm_movemask_epi8(_mm_or_si128(x, _mm_cmpeq_epi8(x, _mm_set1_epi8('\\')))));
                if (stop) {
                    const int ascii = __builtin_ctz(stop);
                    p += ascii;
                    o += ascii;
                    break;
                }
                p += 16;
                o += 16;
            }
#endif
            while (end - p >= 8 && plain(*p)) {
                quint64 x;
                std::memcpy(&x, p, 8);
                const quint64 slash = x ^ (ones * '\\');
                const quint64 atLeastA = (x + ones * (0x80 - 'A')) & highs;
                const quint64 pastZ = (x + ones * (0x80 - 'Z' - 1)) & highs;
                const quint64 lowered = x | ((atLeastA & ~pastZ) >> 2);
                std::memcpy(o, &lowered, 8);
                const quint64 stop = (x & highs) | ((slash - ones) & ~slash & highs);
                if (stop) {
                    // The lowest marked byte is the first one to stop at (borrows only run upwards).
                    const int ascii = __builtin_ctzll(stop) / 8;
                    p += ascii;
                    o += ascii;
                    break;
                }
                p += 8;
                o += 8;
            }
        }
        if (p >= end)
            break;
        const uchar c = *p;
        if (c < 0x80 && c != '\\') {
            if (pendingHigh)
                flushHigh();
            *o++ = ascii[c];
            ++p;
            continue;
        }
        if (c == '\\') {
            if (p + 1 >= end) {
                flushHigh();
                *o++ = '\\';
                ++p;
                continue;
            }
            const uchar e = p[1];
            if (e == 'u') {
                const std::optional<char16_t> unit =
                    hexUnit(QByteArrayView(reinterpret_cast<const char *>(p + 2), end - p - 2), 0);
                if (unit) {
                    p += 6;
                    if (pendingHigh && QChar::isLowSurrogate(*unit)) {
                        o = putCodePoint(o, QChar::surrogateToUcs4(pendingHigh, *unit));
                        pendingHigh = 0;
                    } else {
                        flushHigh();
                        if (QChar::isHighSurrogate(*unit))
                            pendingHigh = *unit;
                        else
                            o = putUnit(o, TextSearch::foldUnit(*unit));
                    }
                    continue;
                }
            }
            flushHigh();
            switch (e) {
            case 'n':
                *o++ = '\n';
                break;
            case 't':
                *o++ = '\t';
                break;
            case 'r':
                *o++ = '\r';
                break;
            case 'b':
                *o++ = '\b';
                break;
            case 'f':
                *o++ = '\f';
                break;
            default:
                *o++ = e < 0x80 ? ascii[e] : char(e); // '"', '\\', '/' and anything else as itself
                break;
            }
            p += 2;
            continue;
        }
        flushHigh();
        // A multi-byte sequence: one letter to fold, or a character outside the 16-bit range,
        // which folding keeps as it is.
        const int length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        if (length == 1 || p + length > end) {
            *o++ = char(c);
            ++p;
            continue;
        }
        if (length == 4) {
            std::memcpy(o, p, 4);
            o += 4;
        } else {
            const char16_t unit = length == 2 ? char16_t(((c & 0x1F) << 6) | (p[1] & 0x3F))
                                              : char16_t(((c & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F));
            o = putUnit(o, TextSearch::foldUnit(unit));
        }
        p += length;
    }
    flushHigh();
    out.truncate(o - out.constData());
}

const char *findBytes(QByteArrayView haystack, QByteArrayView needle, qsizetype from = 0)
{
    if (from >= haystack.size())
        return nullptr;
    return static_cast<const char *>(
        memmem(haystack.data() + from, size_t(haystack.size() - from), needle.data(), size_t(needle.size())));
}

// Calls onContent(index, body) for the "content" string of each message object of a compact JSON
// array of messages, in order; stops when it returns false. The text has been validated when it
// was loaded, so the walk only needs to tell strings from structure.
template<class F>
void forEachStoredContent(QByteArrayView json, F onContent)
{
    const char *const begin = json.data();
    const char *const end = begin + json.size();
    const char *p = begin;
    int depth = 0;
    qsizetype message = -1;
    bool contentKey = false;
    while (p < end) {
        const char *quote = static_cast<const char *>(std::memchr(p, '"', size_t(end - p)));
        const char *structure = quote ? quote : end;
        for (const char *s = p; s < structure; ++s) {
            if (*s == '{' || *s == '[') {
                ++depth;
                if (*s == '{' && depth == 2)
                    ++message;
            } else if (*s == '}' || *s == ']') {
                --depth;
            }
        }
        if (!quote)
            return;
        // Find the closing quote: one not preceded by an odd run of backslashes.
        const char *close = quote + 1;
        for (;;) {
            close = static_cast<const char *>(std::memchr(close, '"', size_t(end - close)));
            if (!close)
                return;
            const char *b = close;
            while (b > quote + 1 && b[-1] == '\\')
                --b;
            if ((close - b) % 2 == 0)
                break;
            ++close;
        }
        const QByteArrayView body(quote + 1, close - quote - 1);
        p = close + 1;
        const bool isKey = p < end && *p == ':';
        if (isKey) {
            contentKey = depth == 2 && body == "content";
        } else if (contentKey) {
            contentKey = false;
            if (!onContent(message, body))
                return;
        }
    }
}

// One line of text around the hit at position at, with the words found in it.
void makeContext(const QString &text, const QString &folded, qsizetype at, const Query &query, SearchResult &result)
{
    qsizetype lineStart = text.lastIndexOf(u'\n', at) + 1;
    qsizetype lineEnd = text.indexOf(u'\n', at);
    if (lineEnd < 0)
        lineEnd = text.size();
    qsizetype start = std::max(lineStart, at - contextBefore);
    qsizetype end = std::min(lineEnd, at + contextAfter);
    // Whole words at the edges where the line goes on.
    if (start > lineStart) {
        const qsizetype space = text.indexOf(u' ', start);
        if (space >= 0 && space < at)
            start = space + 1;
    }
    if (end < lineEnd) {
        const qsizetype space = text.lastIndexOf(u' ', end);
        if (space > at)
            end = space;
    }
    const QStringView line = QStringView(text).sliced(start, end - start);
    const QStringView foldedLine = QStringView(folded).sliced(start, end - start);
    qsizetype leading = 0;
    while (leading < line.size() && line.at(leading).isSpace())
        ++leading;
    QString context = line.sliced(leading).trimmed().toString();
    QList<Range> hits = query.hits(foldedLine.sliced(leading, context.size()));
    if (start > lineStart) {
        context.prepend(u'…');
        for (Range &r : hits)
            ++r.start;
    }
    if (end < lineEnd)
        context.append(u'…');
    // Tabs and other controls would draw as boxes in one line of a list.
    for (QChar &c : context) {
        if (c.category() == QChar::Other_Control)
            c = u' ';
    }
    result.context = context;
    result.contextHits = hits;
}

} // namespace

std::optional<SearchResult> HistorySearch::searchConversation(const Conversation &conversation, const Query &query)
{
    thread_local Scratch scratch;
    const QStringList &words = query.words();
    if (words.isEmpty())
        return std::nullopt;
    QList<QByteArray> &wordBytes = scratch.words;
    wordBytes.resize(words.size());
    for (qsizetype i = 0; i < words.size(); ++i) {
        wordBytes[i].clear();
        appendFoldedUtf16(words.at(i), wordBytes[i], false);
    }
    QList<bool> found(words.size(), false);
    qsizetype missing = words.size();
    TextSearch::foldInto(conversation.title, scratch.folded);
    for (qsizetype i = 0; i < words.size(); ++i) {
        if (scratch.folded.contains(words.at(i))) {
            found[i] = true;
            --missing;
        }
    }

    // Each message is folded into bytes and searched for the words still missing (for all of them
    // until one message holds any, which is then the context); the walk ends once nothing more
    // is to be learnt.
    qsizetype contextMessage = -1;
    QByteArray &bytes = scratch.foldedBytes;
    const auto visit = [&](qsizetype index) {
        for (qsizetype i = 0; i < words.size(); ++i) {
            if (found[i] && contextMessage >= 0)
                continue;
            if (!findBytes(bytes, wordBytes.at(i)))
                continue;
            if (contextMessage < 0)
                contextMessage = index;
            if (!found[i]) {
                found[i] = true;
                --missing;
            }
        }
        return !(contextMessage >= 0 && missing == 0);
    };
    const std::optional<QByteArrayView> stored = conversation.messages.stored();
    if (stored) {
        forEachStoredContent(*stored, [&](qsizetype index, QByteArrayView body) {
            bytes.clear();
            appendFoldedJson(body, bytes);
            return visit(index);
        });
    } else {
        const QList<ChatMessage> &messages = conversation.messages.list();
        for (qsizetype i = 0; i < messages.size(); ++i) {
            bytes.clear();
            appendFoldedUtf16(messages.at(i).content, bytes, true);
            if (!visit(i))
                break;
        }
    }
    if (missing > 0)
        return std::nullopt;

    SearchResult result;
    result.id = conversation.id;
    result.title = conversation.title;
    result.updatedAt = conversation.updatedAt;
    if (contextMessage < 0)
        return result;
    // Only the message shown as context is decoded.
    const QString *text = nullptr;
    if (stored) {
        forEachStoredContent(*stored, [&](qsizetype i, QByteArrayView body) {
            if (i < contextMessage)
                return true;
            decodeJsonString(body, scratch);
            text = &scratch.text;
            return false;
        });
    } else {
        text = &conversation.messages.list().at(contextMessage).content;
    }
    if (!text)
        return result;
    TextSearch::foldInto(*text, scratch.folded);
    qsizetype first = -1;
    for (const QString &folded : words) {
        const qsizetype at = scratch.folded.indexOf(folded);
        if (at >= 0 && (first < 0 || at < first))
            first = at;
    }
    if (first >= 0) {
        makeContext(*text, scratch.folded, first, query, result);
        result.messageIndex = contextMessage;
    }
    return result;
}

// One search, shared by its workers: each takes the next chunk of the snapshot, and the results
// are handed over in the snapshot's order, whichever worker finishes a chunk first.
struct HistorySearch::Job
{
    // Small enough that the first rows come from the newest conversations at once, large enough
    // that taking a chunk costs nothing next to searching it.
    static constexpr qsizetype chunkSize = 16;
    // The first rows as soon as there are enough to fill the list's top, then in steps the window
    // can take without a stutter.
    static constexpr qsizetype firstBatch = 20;
    static constexpr qint64 batchIntervalMs = 30;

    QPointer<HistorySearch> owner;
    std::shared_ptr<std::atomic<quint64>> current;
    quint64 generation = 0;
    QList<Conversation> conversations;
    Query query;
    qsizetype chunkCount = 0;
    std::atomic<qsizetype> nextChunk{0};
    std::atomic<qsizetype> backChunk{0}; // one past the spare worker's next chunk

    QMutex mutex;
    std::vector<std::optional<QList<SearchResult>>> done; // by chunk, until handed over
    qsizetype handedOver = 0;                             // chunks whose results left done
    QList<SearchResult> pending;                          // handed over, not yet posted
    bool posted = false;
    QElapsedTimer sincePost;

    bool cancelled() const { return current->load(std::memory_order_relaxed) != generation; }

    // The workers take chunks from the front, at a niceness of 5, so that the window's turns
    // (drawing the rows found so far) get the larger share of a core they come to share. A spare
    // one (SCHED_IDLE: it reads only on a core nothing else wants) takes them from the back, and
    // a worker arriving at a chunk the spare is still on reads it too, so that a spare held back by
    // other programs never holds back results. Both are the thread's own on Linux, and each pool's
    // threads keep theirs.
    //
    // A share is not enough: once the scheduler has handed a worker the window's core, however low
    // its priority, the worker keeps it for a whole time slice, which lasts until the next tick
    // (up to 4 ms), and the window's turn waits that long half way through. Each worker therefore
    // offers its core back after every conversation, which takes a microsecond and lets a waiting
    // turn go on at once.
    void run(bool spare)
    {
        if (spare) {
            const sched_param none{};
            ::sched_setscheduler(0, SCHED_IDLE, &none);
        } else {
            ::setpriority(PRIO_PROCESS, id_t(::gettid()), 5);
        }
        while (!cancelled()) {
            const qsizetype chunk = spare ? backChunk.fetch_sub(1) - 1 : nextChunk.fetch_add(1);
            if (spare ? chunk < nextChunk.load() : chunk >= chunkCount)
                return;
            if (!spare && isDone(chunk))
                continue;
            QList<SearchResult> found;
            const qsizetype end = std::min(conversations.size(), (chunk + 1) * chunkSize);
            for (qsizetype i = chunk * chunkSize; i < end; ++i) {
                if (cancelled())
                    return;
                if (std::optional<SearchResult> result = searchConversation(conversations.at(i), query))
                    found.append(std::move(*result));
                ::sched_yield();
            }
            const QMutexLocker lock(&mutex);
            if (chunk < handedOver || done[std::size_t(chunk)])
                continue; // read twice, kept once
            done[std::size_t(chunk)] = std::move(found);
            while (handedOver < chunkCount && done[std::size_t(handedOver)]) {
                pending.append(std::move(*done[std::size_t(handedOver)]));
                done[std::size_t(handedOver)].reset();
                ++handedOver;
            }
            // Only the worker that hands over the last chunk sees them all handed over.
            const bool last = handedOver == chunkCount;
            if (last || (!posted && pending.size() >= firstBatch) ||
                (!pending.isEmpty() && sincePost.elapsed() >= batchIntervalMs))
                post(last);
        }
    }

    bool isDone(qsizetype chunk)
    {
        const QMutexLocker lock(&mutex);
        return chunk < handedOver || done[std::size_t(chunk)];
    }

    // Called with the mutex held.
    void post(bool last)
    {
        if (cancelled())
            return;
        // Posted to the application, not to the search, which the main thread may be deleting.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [owner = owner, generation = generation, batch = std::move(pending), last] {
                if (owner)
                    owner->deliver(generation, batch, last);
            },
            Qt::QueuedConnection);
        pending = {};
        posted = true;
        sincePost.restart();
    }
};

HistorySearch::HistorySearch(QObject *parent)
    : QObject(parent)
    , m_generation(std::make_shared<std::atomic<quint64>>(0))
    , m_pool(new QThreadPool(this))
    , m_sparePool(new QThreadPool(this))
{
    // The history is searched on every core but one, which the window keeps. A spare worker takes
    // that core whenever the window leaves it idle. Pools of their own, so that a search never
    // queues behind other background work (code highlighting) nor holds it up.
    const int cores = std::max(1, QThread::idealThreadCount());
    m_pool->setMaxThreadCount(std::max(1, cores - 1));
    m_sparePool->setMaxThreadCount(1);
    m_spares = cores > 1 ? 1 : 0;
}

HistorySearch::~HistorySearch()
{
    cancel();
    // Each worker sees the cancellation after the conversation it is reading.
    m_pool->waitForDone();
    m_sparePool->waitForDone();
}

void HistorySearch::cancel()
{
    ++*m_generation;
    m_running = false;
}

void HistorySearch::start(const QList<Conversation> &conversations, const QString &typed)
{
    const quint64 generation = ++*m_generation;
    const Query query(typed);
    if (query.isEmpty() || conversations.isEmpty()) {
        m_running = false;
        emit resultsFound({});
        emit finished();
        return;
    }
    m_running = true;
    auto job = std::make_shared<Job>();
    job->owner = this;
    job->current = m_generation;
    job->generation = generation;
    job->conversations = conversations;
    job->query = query;
    job->chunkCount = (conversations.size() + Job::chunkSize - 1) / Job::chunkSize;
    job->done.resize(std::size_t(job->chunkCount));
    job->backChunk = job->chunkCount;
    job->sincePost.start();
    const qsizetype workers = std::min<qsizetype>(m_pool->maxThreadCount(), job->chunkCount);
    for (qsizetype i = 0; i < workers; ++i)
        m_pool->start([job] { job->run(false); });
    for (int i = 0; i < m_spares && job->chunkCount > workers; ++i)
        m_sparePool->start([job] { job->run(true); });
}

void HistorySearch::deliver(quint64 generation, const QList<SearchResult> &results, bool last)
{
    if (generation != m_generation->load())
        return;
    if (!results.isEmpty())
        emit resultsFound(results);
    if (last) {
        m_running = false;
        emit finished();
    }
}
