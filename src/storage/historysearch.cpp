#include "storage/historysearch.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMetaObject>
#include <QPointer>
#include <QThreadPool>

#include <cstring>

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
    QList<bool> found(words.size(), false);
    qsizetype missing = words.size();
    // Marks the words the text holds; words found before are looked for again only while the
    // context is still to be chosen (any word then makes the message the first hit).
    const auto mark = [&](QStringView folded, bool needAny) {
        bool any = false;
        for (qsizetype i = 0; i < words.size(); ++i) {
            if (found[i] && !needAny)
                continue;
            if (folded.contains(words[i])) {
                any = true;
                if (!found[i]) {
                    found[i] = true;
                    --missing;
                }
            }
        }
        return any;
    };

    SearchResult result;
    TextSearch::foldInto(conversation.title, scratch.folded);
    mark(scratch.folded, false);

    bool haveContext = false;
    const auto visit = [&](qsizetype index, const QString &text) {
        TextSearch::foldInto(text, scratch.folded);
        if (mark(scratch.folded, !haveContext) && !haveContext) {
            qsizetype first = -1;
            for (const QString &word : words) {
                const qsizetype at = scratch.folded.indexOf(word);
                if (at >= 0 && (first < 0 || at < first))
                    first = at;
            }
            makeContext(text, scratch.folded, first, query, result);
            result.messageIndex = index;
            haveContext = true;
        }
        return !(haveContext && missing == 0);
    };
    if (const std::optional<QByteArrayView> stored = conversation.messages.stored()) {
        forEachStoredContent(*stored, [&](qsizetype index, QByteArrayView body) {
            decodeJsonString(body, scratch);
            return visit(index, scratch.text);
        });
    } else {
        const QList<ChatMessage> &messages = conversation.messages.list();
        for (qsizetype i = 0; i < messages.size(); ++i) {
            if (!visit(i, messages.at(i).content))
                break;
        }
    }
    if (missing > 0)
        return std::nullopt;
    result.id = conversation.id;
    result.title = conversation.title;
    result.updatedAt = conversation.updatedAt;
    return result;
}

HistorySearch::HistorySearch(QObject *parent)
    : QObject(parent)
    , m_generation(std::make_shared<std::atomic<quint64>>(0))
{}

HistorySearch::~HistorySearch()
{
    cancel();
    // The worker holds the snapshot and the generation counter by shared pointers, and delivers
    // through a guarded pointer; it ends on its own after seeing the cancellation.
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
    if (query.isEmpty()) {
        m_running = false;
        emit resultsFound({});
        emit finished();
        return;
    }
    m_running = true;
    QPointer<HistorySearch> self(this);
    std::shared_ptr<std::atomic<quint64>> current = m_generation;
    QThreadPool::globalInstance()->start([self, current, generation, conversations, query] {
        QList<SearchResult> batch;
        QElapsedTimer sinceDelivery;
        sinceDelivery.start();
        bool delivered = false;
        const auto send = [&](bool last) {
            if (current->load() != generation)
                return;
            // Posted to the application, not to the search, which the main thread may be deleting.
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [self, generation, batch, last] {
                    if (self)
                        self->deliver(generation, batch, last);
                },
                Qt::QueuedConnection);
            batch.clear();
            delivered = true;
            sinceDelivery.restart();
        };
        for (const Conversation &conversation : conversations) {
            if (current->load() != generation)
                return;
            if (std::optional<SearchResult> result = searchConversation(conversation, query))
                batch.append(std::move(*result));
            // The first rows as soon as there are enough to fill the list's top, then in steps the
            // window can take without a stutter.
            if ((!delivered && batch.size() >= 20) || (!batch.isEmpty() && sinceDelivery.elapsed() >= 30))
                send(false);
        }
        send(true);
    });
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
