#include "storage/historyfile.h"

#include "model/jsoncoding.h"
#include "storage/atomicfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstring>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

namespace HistoryFile {

namespace {

Stamp stampOf(const struct stat &st)
{
    return {true, st.st_dev, st.st_ino, st.st_size, qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec};
}

// A large history is read into huge pages where the system allows them on request: a few faults
// instead of one per 4 KiB while the bytes are copied in, and fewer TLB misses while they are parsed.
void preferHugePages(char *data, qsizetype size)
{
    constexpr quintptr huge = 2 << 20;
    const quintptr begin = (quintptr(data) + huge - 1) & ~(huge - 1);
    const quintptr end = (quintptr(data) + quintptr(size)) & ~(huge - 1);
    if (end > begin)
        ::madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
}

// The whole file as it is at one moment, with room after it for the parser's padding.
std::optional<QByteArray> readStable(QFile &file, Stamp &stamp)
{
    struct stat before = {};
    if (::fstat(file.handle(), &before) != 0)
        return std::nullopt;
    // One byte more than expected tells a file that grew meanwhile from one that did not.
    const qsizetype expected = qsizetype(before.st_size);
    QByteArray bytes;
    bytes.reserve(expected + 1 + Json::parsePadding);
    preferHugePages(bytes.data(), bytes.capacity());
    bytes.resize(expected + 1);
    qsizetype used = 0;
    while (used < bytes.size()) {
        const qint64 got = file.read(bytes.data() + used, bytes.size() - used);
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        used += qsizetype(got);
    }
    if (used != expected)
        return std::nullopt;
    bytes.resize(used);
    struct stat after = {};
    if (::fstat(file.handle(), &after) != 0)
        return std::nullopt;
    stamp = stampOf(after);
    if (!(stampOf(before) == stamp))
        return std::nullopt;
    return bytes;
}

bool sameContent(const QString &a, const QString &b)
{
    QFile fa(a);
    QFile fb(b);
    if (fa.size() != fb.size() || !fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly))
        return false;
    constexpr qint64 block = 1 << 20;
    while (!fa.atEnd()) {
        const QByteArray pa = fa.read(block);
        if (pa.isEmpty() || pa != fb.read(block))
            return false;
    }
    return fb.atEnd();
}

// A light pass over the text that finds where each conversation and its messages lie, so that each
// conversation is parsed on its own (never the whole history at once) and its messages can stay in
// the file's bytes. It only splits: every piece is still fully checked by the JSON parser, and any
// surprise sends the file down the plain path of one whole parse.
class Scanner
{
public:
    explicit Scanner(QByteArrayView text)
        : m_p(text.data())
        , m_n(text.size())
    {}

    struct Piece
    {
        QByteArrayView element;
        QByteArrayView member; // the compact value of the wanted member, when found
    };

    // Where the text lies within the top-level array: all of it, its head up to the end of an
    // element, or its tail from the start of an element.
    enum class Span { Whole, Head, Tail };

    // The top-level array's elements, and in each object the value of its first member named key
    // when that is written without blanks (not when a key is written with escapes, which could
    // hide another one of that name).
    bool splitArray(QByteArrayView key, QList<Piece> &pieces, Span span = Span::Whole)
    {
        skipBlanks();
        if (span != Span::Tail && !take('['))
            return false;
        skipBlanks();
        if (span == Span::Tail || !take(']')) {
            for (;;) {
                skipBlanks();
                const qsizetype begin = m_i;
                Piece piece;
                bool compact = true;
                if (m_i < m_n && m_p[m_i] == '{' ? !skipObject(key, piece.member) : !skipValue(compact))
                    return false;
                piece.element = QByteArrayView(m_p + begin, m_i - begin);
                pieces.append(piece);
                if (span == Span::Head && m_i == m_n)
                    return true;
                skipBlanks();
                if (take(']'))
                    break;
                if (!take(','))
                    return false;
            }
        }
        skipBlanks();
        return span != Span::Head && m_i == m_n;
    }

private:
    static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
    void skipBlanks()
    {
        while (m_i < m_n && isBlank(m_p[m_i]))
            ++m_i;
    }
    bool take(char c)
    {
        if (m_i < m_n && m_p[m_i] == c) {
            ++m_i;
            return true;
        }
        return false;
    }
    bool skipObject(QByteArrayView key, QByteArrayView &member)
    {
        take('{');
        bool ambiguous = false;
        bool seen = false;
        skipBlanks();
        if (take('}'))
            return true;
        for (;;) {
            skipBlanks();
            const qsizetype keyBegin = m_i;
            if (!take('"') || !skipStringRest())
                return false;
            const QByteArrayView name(m_p + keyBegin + 1, m_i - keyBegin - 2);
            ambiguous = ambiguous || name.contains('\\');
            skipBlanks();
            if (!take(':'))
                return false;
            skipBlanks();
            const qsizetype valueBegin = m_i;
            bool compact = true;
            if (!skipValue(compact))
                return false;
            if (!seen && name == key) {
                seen = true;
                if (compact && !ambiguous)
                    member = QByteArrayView(m_p + valueBegin, m_i - valueBegin);
            }
            skipBlanks();
            if (take('}'))
                break;
            if (!take(','))
                return false;
        }
        if (ambiguous)
            member = {};
        return true;
    }

    // Moves past the closing quote of a string whose opening quote was just taken. Almost all of a
    // history is string content, so the closing quote is searched for, not walked to.
    bool skipStringRest()
    {
        const qsizetype start = m_i;
        for (;;) {
            const void *quote = std::memchr(m_p + m_i, '"', size_t(m_n - m_i));
            if (!quote)
                return false;
            const qsizetype at = static_cast<const char *>(quote) - m_p;
            qsizetype backslashes = 0;
            while (at - backslashes > start && m_p[at - backslashes - 1] == '\\')
                ++backslashes;
            m_i = at + 1;
            if (backslashes % 2 == 0)
                return true;
        }
    }
    // Moves past one value; compact turns false when blanks lie between its tokens.
    bool skipValue(bool &compact)
    {
        int depth = 0;
        while (m_i < m_n) {
            const char c = m_p[m_i++];
            if (c == '"') {
                if (!skipStringRest())
                    return false;
            } else if (c == '{' || c == '[') {
                ++depth;
            } else if (c == '}' || c == ']') {
                if (--depth < 0)
                    return false;
            } else if (isBlank(c)) {
                compact = false;
            } else if (depth == 0 && (c == ',' || c == ':')) {
                return false;
            } else {
                // A number or a literal at the top: it ends where the next token starts.
                if (depth == 0) {
                    while (m_i < m_n && !isBlank(m_p[m_i]) && m_p[m_i] != ',' && m_p[m_i] != ']' && m_p[m_i] != '}' &&
                           m_p[m_i] != ':')
                        ++m_i;
                    return true;
                }
                continue;
            }
            if (depth == 0)
                return true;
        }
        return false;
    }

    const char *m_p;
    qsizetype m_n;
    qsizetype m_i = 0;
};

bool decodePieces(const std::shared_ptr<const QByteArray> &buffer, const QList<Scanner::Piece> &pieces,
                  QList<Conversation> &out)
{
    out.reserve(out.size() + pieces.size());
    Json::Parser parser;
    QString error;
    for (const Scanner::Piece &piece : pieces) {
        // The file's own bytes (and the padding reserved after them) serve as the parser's input.
        const Json::Value root = parser.parsePadded(piece.element, &error);
        Conversation conversation;
        if (!root.isValid() || !fromStoredJson(root, buffer, piece.member, conversation, error))
            return false;
        out.append(std::move(conversation));
    }
    return true;
}

// Splits and decodes one half of the array on each of two threads; nothing when the history is too
// small to be worth a thread or the cut cannot be trusted. The cut is made before the conversation
// that follows a conversation's last member as this program writes them (a key with its quotes
// cannot occur inside a string, where every quote is escaped, but a message could still carry a
// member of that name); the first half's scan has to end exactly on it, or the halves are dropped.
std::optional<bool> decodeInHalves(const std::shared_ptr<const QByteArray> &buffer, QByteArrayView content,
                                   QList<Conversation> &out)
{
    constexpr qsizetype worthSplitting = 1 << 20;
    if (content.size() < worthSplitting)
        return std::nullopt;
    const qsizetype last = content.indexOf("\"updatedAt\":", content.size() / 2);
    const qsizetype cut = last < 0 ? -1 : content.indexOf("},{\"id\":", last);
    if (cut < 0)
        return std::nullopt;
    const QByteArrayView head = content.first(cut + 1);
    const QByteArrayView tail = content.sliced(cut + 2);

    QList<Conversation> later;
    bool laterScanned = false;
    bool laterDecoded = false;
    std::thread other([&] {
        QList<Scanner::Piece> pieces;
        laterScanned = Scanner(tail).splitArray("messages", pieces, Scanner::Span::Tail);
        laterDecoded = laterScanned && decodePieces(buffer, pieces, later);
    });
    QList<Scanner::Piece> pieces;
    const bool headScanned = Scanner(head).splitArray("messages", pieces, Scanner::Span::Head);
    QList<Conversation> decoded;
    const bool headDecoded = headScanned && decodePieces(buffer, pieces, decoded);
    other.join();
    if (!headScanned || !laterScanned)
        return std::nullopt;
    if (!headDecoded || !laterDecoded)
        return false;
    decoded.append(std::move(later));
    out = std::move(decoded);
    return true;
}

// Each conversation parsed on its own, its messages left in the file's bytes.
bool decodeByConversation(const std::shared_ptr<const QByteArray> &buffer, QByteArrayView content,
                          QList<Conversation> &out)
{
    if (const std::optional<bool> decoded = decodeInHalves(buffer, content, out))
        return *decoded;
    QList<Scanner::Piece> pieces;
    if (!Scanner(content).splitArray("messages", pieces)) {
        QString error;
        const auto document = Json::Document::parsePadded(content, &error);
        return document && fromJson(document->root(), out, error);
    }
    QList<Conversation> decoded;
    if (!decodePieces(buffer, pieces, decoded))
        return false;
    out = std::move(decoded);
    return true;
}

} // namespace

Stamp stampOf(const QString &path)
{
    struct stat st = {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return {};
    return stampOf(st);
}

ReadResult read(const QString &path)
{
    ReadResult result;
    QFile file(path);
    // A few attempts only: a file rewritten without pause is then left for later.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
            result.stamp = stampOf(path);
            result.status = result.stamp.exists ? ReadResult::Status::Unreadable : ReadResult::Status::Missing;
            return result;
        }
        std::optional<QByteArray> bytes = readStable(file, result.stamp);
        file.close();
        if (!bytes)
            continue;
        const auto buffer = std::make_shared<const QByteArray>(std::move(*bytes));
        QByteArrayView content(*buffer);
        if (content.startsWith("\xEF\xBB\xBF"))
            content = content.sliced(3);
        result.status = decodeByConversation(buffer, content, result.conversations) ? ReadResult::Status::Decoded
                                                                                    : ReadResult::Status::Unreadable;
        return result;
    }
    result.status = ReadResult::Status::Changing;
    result.stamp = stampOf(path);
    return result;
}

std::optional<QString> keepAside(const QString &path, bool allowMove)
{
    const QFileInfo info(path);
    const QDir folder = info.absoluteDir();
    const QString prefix = info.completeBaseName() + QStringLiteral(".unreadable-");
    const QStringList earlier =
        folder.entryList({prefix + QStringLiteral("*.") + info.suffix()}, QDir::Files | QDir::Hidden, QDir::Name);
    for (const QString &name : earlier) {
        if (sameContent(path, folder.filePath(name)))
            return folder.filePath(name);
    }
    const QString stem = folder.filePath(prefix + AtomicFile::asideStamp());
    QString aside;
    for (int n = 1;; ++n) {
        aside = stem + (n == 1 ? QString() : u'-' + QString::number(n)) + u'.' + info.suffix();
        if (!QFileInfo::exists(aside))
            break;
    }
    if (QFile::copy(path, aside)) {
        AtomicFile::restrictToOwner(aside);
        return aside;
    }
    // A file we cannot even read cannot be copied; moving it keeps it just as well.
    if (allowMove && QFile::rename(path, aside))
        return aside;
    return std::nullopt;
}

} // namespace HistoryFile
