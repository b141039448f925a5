#include "render/inlinemarkdown.h"

#include "render/htmlentities.h"
#include "render/unicodetext.h"

#include <QChar>
#include <QHash>
#include <QUrl>

#include <array>

namespace {

bool isAsciiPunctuation(char16_t c)
{
    return (c >= u'!' && c <= u'/') || (c >= u':' && c <= u'@') || (c >= u'[' && c <= u'`') || (c >= u'{' && c <= u'~');
}

bool isUnicodePunctuation(char32_t c)
{
    if (c < 0x80)
        return isAsciiPunctuation(char16_t(c));
    switch (QChar::category(c)) {
    case QChar::Punctuation_Connector:
    case QChar::Punctuation_Dash:
    case QChar::Punctuation_Open:
    case QChar::Punctuation_Close:
    case QChar::Punctuation_InitialQuote:
    case QChar::Punctuation_FinalQuote:
    case QChar::Punctuation_Other:
    case QChar::Symbol_Math:
    case QChar::Symbol_Currency:
    case QChar::Symbol_Modifier:
    case QChar::Symbol_Other:
        return true;
    default:
        return false;
    }
}

bool isSpecial(char16_t c)
{
    switch (c) {
    case u'\\':
    case u'`':
    case u'*':
    case u'_':
    case u'~':
    case u'[':
    case u']':
    case u'!':
    case u'<':
    case u'&':
        return true;
    default:
        return false;
    }
}

bool isAsciiAlnum(char16_t c)
{
    return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

void appendCodePoint(QString &out, char32_t c)
{
    if (c == 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        c = QChar::ReplacementCharacter;
    const char32_t ucs4[] = {c};
    out += QString::fromUcs4(ucs4, 1);
}

// An entity or numeric character reference at s[pos] ('&'): its length and text, or 0.
qsizetype entityAt(QStringView s, qsizetype pos, QString &out)
{
    const qsizetype n = s.size();
    qsizetype p = pos + 1;
    if (p < n && s[p] == u'#') {
        ++p;
        const bool hex = p < n && (s[p] == u'x' || s[p] == u'X');
        if (hex)
            ++p;
        const qsizetype digitsStart = p;
        char32_t value = 0;
        const qsizetype maxDigits = hex ? 6 : 7;
        while (p < n && p - digitsStart < maxDigits) {
            const char16_t c = s[p].unicode();
            int digit = -1;
            if (c >= u'0' && c <= u'9')
                digit = c - u'0';
            else if (hex && c >= u'a' && c <= u'f')
                digit = c - u'a' + 10;
            else if (hex && c >= u'A' && c <= u'F')
                digit = c - u'A' + 10;
            if (digit < 0)
                break;
            value = value * (hex ? 16 : 10) + char32_t(digit);
            ++p;
        }
        if (p == digitsStart || p >= n || s[p] != u';')
            return 0;
        appendCodePoint(out, value);
        return p + 1 - pos;
    }
    const qsizetype nameStart = p;
    while (p < n && p - nameStart < 32 && isAsciiAlnum(s[p].unicode()))
        ++p;
    if (p == nameStart || p >= n || s[p] != u';')
        return 0;
    const QByteArray name = s.sliced(nameStart, p - nameStart).toLatin1();
    const QString text = HtmlEntities::lookup(QLatin1StringView(name));
    if (text.isNull())
        return 0;
    out += text;
    return p + 1 - pos;
}

// Backslash escapes and entities decoded, as in link destinations.
QString unescaped(QStringView s)
{
    QString out;
    out.reserve(s.size());
    for (qsizetype i = 0; i < s.size();) {
        const QChar c = s[i];
        if (c == u'\\' && i + 1 < s.size() && isAsciiPunctuation(s[i + 1].unicode())) {
            out += s[i + 1];
            i += 2;
        } else if (c == u'&') {
            const qsizetype length = entityAt(s, i, out);
            if (length == 0)
                out += c;
            i += length ? length : 1;
        } else {
            out += c;
            ++i;
        }
    }
    return out;
}

// indexOf for a parser that only moves forward: a search from a later start reuses the last
// answer while it still lies ahead, so a thousand unclosed "<!--" cost one scan, not a thousand.
class ForwardSearch
{
public:
    explicit ForwardSearch(QStringView needle)
        : m_needle(needle)
    {}

    qsizetype find(QStringView text, qsizetype from)
    {
        if (m_from < 0 || from < m_from || (m_found >= 0 && m_found < from))
            m_found = text.indexOf(m_needle, from);
        m_from = from;
        return m_found;
    }

private:
    QStringView m_needle;
    qsizetype m_from = -1;
    qsizetype m_found = -1;
};

bool isHtmlSpace(QChar c)
{
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f' || c == u'\v';
}

bool isAsciiLetter(QChar c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

class Parser
{
public:
    explicit Parser(QStringView text)
        : m_s(text)
        , m_linkBudget(16 * text.size() + 100000)
    {}

    QList<InlineRun> run();

private:
    struct Item
    {
        QString text;
        bool code = false;
        std::optional<QString> link;
    };
    enum Style { Emphasis, Strong, Strike, StyleCount };
    struct Span
    {
        qsizetype from; // exclusive: the opener's item
        qsizetype to;   // exclusive: the closer's item
        Style style;
    };
    struct Delimiter
    {
        qsizetype item;
        char16_t ch;
        qsizetype count;
        qsizetype originalCount;
        bool canOpen;
        bool canClose;
        int prev;
        int next;
    };
    struct Bracket
    {
        qsizetype item;
        bool image;
        int previousDelimiter;
    };

    char32_t codePointBefore(qsizetype pos) const;
    char32_t codePointAt(qsizetype pos) const;
    void flush();
    void appendItem(Item item);
    void parseBackticks();
    qsizetype findBacktickCloser(qsizetype from, qsizetype length);
    void parseDelimiterRun();
    void parseCloseBracket();
    bool parseLinkTail(qsizetype pos, QString *destination, qsizetype *end);
    qsizetype skipSpaceAndOneLineEnding(qsizetype pos) const;
    bool parseAutolink();
    qsizetype htmlLength(qsizetype pos);
    qsizetype htmlTagLength(qsizetype pos);
    void removeDelimiter(int index);
    void processEmphasis(int stackBottom);
    bool bracketActive(qsizetype index) const;

    QStringView m_s;
    qsizetype m_pos = 0;
    QString m_pending;
    QList<Item> m_items;
    QList<Span> m_spans;
    QList<Delimiter> m_delimiters;
    int m_lastDelimiter = -1;
    QList<Bracket> m_brackets;
    // Brackets below this index that open links are inactive: a link may not contain a link.
    qsizetype m_linkFloor = 0;
    // Code spans: the last start of a backtick run of each length seen by a forward scan, and
    // whether some scan has reached the end, so that a hopeless opener fails without a rescan.
    QHash<qsizetype, qsizetype> m_lastBacktickRun;
    bool m_scannedAllBackticks = false;
    // Link tails that fail can each look far ahead; past this many scanned units no further tail
    // is tried and the brackets stay literal, which keeps hostile input linear.
    qint64 m_linkBudget;
    ForwardSearch m_commentEnd{u"-->"};
    ForwardSearch m_instructionEnd{u"?>"};
    ForwardSearch m_cdataEnd{u"]]>"};
    ForwardSearch m_declarationEnd{u">"};
    ForwardSearch m_doubleQuote{u"\""};
    ForwardSearch m_singleQuote{u"'"};
};

// The text's two ends count as line ends, which flanking rules treat as white space.
char32_t Parser::codePointBefore(qsizetype pos) const
{
    return pos <= 0 ? U'\n' : UnicodeText::codePointBefore(m_s, pos);
}

char32_t Parser::codePointAt(qsizetype pos) const
{
    return pos >= m_s.size() ? U'\n' : UnicodeText::codePointAt(m_s, pos);
}

void Parser::flush()
{
    if (m_pending.isEmpty())
        return;
    m_items.append(Item{m_pending, false, std::nullopt});
    m_pending.clear();
}

void Parser::appendItem(Item item)
{
    flush();
    m_items.append(std::move(item));
}

QList<InlineRun> Parser::run()
{
    const qsizetype n = m_s.size();
    while (m_pos < n) {
        const char16_t c = m_s[m_pos].unicode();
        switch (c) {
        case u'\\':
            if (m_pos + 1 < n && isAsciiPunctuation(m_s[m_pos + 1].unicode())) {
                m_pending += m_s[m_pos + 1];
                m_pos += 2;
            } else if (m_pos + 1 < n && m_s[m_pos + 1] == u'\n') {
                // A hard line break: the break stays, its backslash goes.
                m_pending += u'\n';
                m_pos += 2;
            } else {
                m_pending += u'\\';
                ++m_pos;
            }
            break;
        case u'`':
            parseBackticks();
            break;
        case u'*':
        case u'_':
        case u'~':
            parseDelimiterRun();
            break;
        case u'[':
            appendItem(Item{QStringLiteral("["), false, std::nullopt});
            m_brackets.append({m_items.size() - 1, false, m_lastDelimiter});
            ++m_pos;
            break;
        case u'!':
            if (m_pos + 1 < n && m_s[m_pos + 1] == u'[') {
                appendItem(Item{QStringLiteral("!["), false, std::nullopt});
                m_brackets.append({m_items.size() - 1, true, m_lastDelimiter});
                m_pos += 2;
            } else {
                m_pending += u'!';
                ++m_pos;
            }
            break;
        case u']':
            parseCloseBracket();
            break;
        case u'<':
            if (parseAutolink())
                break;
            // Raw HTML is shown as the text it is; recognising it only keeps the markup inside
            // a tag (an attribute's "*" or "&amp;") from being read as Markdown.
            if (const qsizetype length = htmlLength(m_pos)) {
                m_pending += m_s.sliced(m_pos, length);
                m_pos += length;
                break;
            }
            m_pending += u'<';
            ++m_pos;
            break;
        case u'&': {
            const qsizetype length = entityAt(m_s, m_pos, m_pending);
            if (length == 0)
                m_pending += u'&';
            m_pos += length ? length : 1;
            break;
        }
        default: {
            qsizetype end = m_pos + 1;
            while (end < n && !isSpecial(m_s[end].unicode()))
                ++end;
            m_pending += m_s.sliced(m_pos, end - m_pos);
            m_pos = end;
            break;
        }
        }
    }
    flush();
    processEmphasis(-1);

    // Sweep the emphasis spans over the items: +1 where a span starts, -1 where it ends.
    const qsizetype count = m_items.size();
    std::array<QList<int>, StyleCount> depth;
    for (auto &d : depth)
        d = QList<int>(count + 1, 0);
    for (const Span &span : std::as_const(m_spans)) {
        if (span.from + 1 >= span.to)
            continue;
        ++depth[span.style][span.from + 1];
        --depth[span.style][span.to];
    }
    QList<InlineRun> runs;
    std::array<int, StyleCount> level{};
    for (qsizetype i = 0; i < count; ++i) {
        for (int s = 0; s < StyleCount; ++s)
            level[s] += depth[s][i];
        const Item &item = m_items[i];
        if (item.text.isEmpty())
            continue;
        InlineRun run;
        run.text = item.text;
        run.emphasis = level[Emphasis] > 0;
        run.strong = level[Strong] > 0;
        run.strike = level[Strike] > 0;
        run.code = item.code;
        run.link = item.link;
        if (!runs.isEmpty() && runs.last().sameStyle(run))
            runs.last().text += run.text;
        else
            runs.append(std::move(run));
    }
    return runs;
}

void Parser::parseBackticks()
{
    const qsizetype start = m_pos;
    qsizetype after = start;
    while (after < m_s.size() && m_s[after] == u'`')
        ++after;
    const qsizetype length = after - start;
    const qsizetype closer = findBacktickCloser(after, length);
    if (closer < 0) {
        m_pending += m_s.sliced(start, length);
        m_pos = after;
        return;
    }
    QStringView content = m_s.sliced(after, closer - after);
    bool allSpaces = true;
    for (const QChar c : content) {
        if (c != u' ') {
            allSpaces = false;
            break;
        }
    }
    if (!allSpaces && content.size() >= 2 && content.front() == u' ' && content.back() == u' ')
        content = content.sliced(1, content.size() - 2);
    appendItem(Item{content.toString(), true, std::nullopt});
    m_pos = closer + length;
}

qsizetype Parser::findBacktickCloser(qsizetype from, qsizetype length)
{
    if (m_scannedAllBackticks && m_lastBacktickRun.value(length, -1) < from)
        return -1;
    const qsizetype n = m_s.size();
    qsizetype p = from;
    while (true) {
        p = m_s.indexOf(u'`', p);
        if (p < 0)
            break;
        qsizetype end = p;
        while (end < n && m_s[end] == u'`')
            ++end;
        qsizetype &last = m_lastBacktickRun[end - p];
        last = std::max(last, p);
        if (end - p == length)
            return p;
        p = end;
    }
    m_scannedAllBackticks = true;
    return -1;
}

void Parser::parseDelimiterRun()
{
    const qsizetype start = m_pos;
    const char16_t ch = m_s[start].unicode();
    qsizetype end = start;
    while (end < m_s.size() && m_s[end] == ch)
        ++end;
    const qsizetype length = end - start;
    m_pos = end;
    if (ch == u'~' && length > 2) {
        m_pending += m_s.sliced(start, length);
        return;
    }

    const char32_t before = codePointBefore(start);
    const char32_t after = codePointAt(end);
    const bool beforeSpace = UnicodeText::isWhitespace(before);
    const bool afterSpace = UnicodeText::isWhitespace(after);
    const bool beforePunct = isUnicodePunctuation(before);
    const bool afterPunct = isUnicodePunctuation(after);
    const bool leftFlanking = !afterSpace && (!afterPunct || beforeSpace || beforePunct);
    const bool rightFlanking = !beforeSpace && (!beforePunct || afterSpace || afterPunct);
    bool canOpen = leftFlanking;
    bool canClose = rightFlanking;
    if (ch == u'_') {
        canOpen = leftFlanking && (!rightFlanking || beforePunct);
        canClose = rightFlanking && (!leftFlanking || afterPunct);
    }

    appendItem(Item{m_s.sliced(start, length).toString(), false, std::nullopt});
    if (!canOpen && !canClose)
        return;
    const int index = int(m_delimiters.size());
    m_delimiters.append({m_items.size() - 1, ch, length, length, canOpen, canClose, m_lastDelimiter, -1});
    if (m_lastDelimiter >= 0)
        m_delimiters[m_lastDelimiter].next = index;
    m_lastDelimiter = index;
}

bool Parser::bracketActive(qsizetype index) const
{
    return m_brackets[index].image || index >= m_linkFloor;
}

void Parser::parseCloseBracket()
{
    ++m_pos;
    if (m_brackets.isEmpty()) {
        m_pending += u']';
        return;
    }
    const qsizetype top = m_brackets.size() - 1;
    const Bracket opener = m_brackets[top];
    QString destination;
    qsizetype end = 0;
    if (!bracketActive(top) || !parseLinkTail(m_pos, &destination, &end)) {
        m_brackets.removeLast();
        m_linkFloor = std::min(m_linkFloor, m_brackets.size());
        m_pending += u']';
        return;
    }

    flush();
    processEmphasis(opener.previousDelimiter);
    m_items[opener.item].text.clear();
    if (!opener.image) {
        for (qsizetype i = opener.item + 1; i < m_items.size(); ++i) {
            if (!m_items[i].link)
                m_items[i].link = destination;
        }
    }
    m_brackets.removeLast();
    if (!opener.image)
        m_linkFloor = m_brackets.size();
    else
        m_linkFloor = std::min(m_linkFloor, m_brackets.size());
    m_pos = end;
}

qsizetype Parser::skipSpaceAndOneLineEnding(qsizetype p) const
{
    const qsizetype n = m_s.size();
    while (p < n && (m_s[p] == u' ' || m_s[p] == u'\t'))
        ++p;
    if (p < n && m_s[p] == u'\r')
        ++p;
    if (p < n && m_s[p] == u'\n')
        ++p;
    while (p < n && (m_s[p] == u' ' || m_s[p] == u'\t'))
        ++p;
    return p;
}

bool Parser::parseLinkTail(qsizetype pos, QString *destination, qsizetype *end)
{
    const qsizetype n = m_s.size();
    if (pos >= n || m_s[pos] != u'(' || m_linkBudget <= 0)
        return false;
    qsizetype p = skipSpaceAndOneLineEnding(pos + 1);
    const auto spend = [&](qsizetype upTo) { m_linkBudget -= upTo - pos; };

    QStringView rawDestination;
    if (p < n && m_s[p] == u'<') {
        qsizetype q = p + 1;
        while (q < n) {
            const QChar c = m_s[q];
            if (c == u'\\' && q + 1 < n && isAsciiPunctuation(m_s[q + 1].unicode())) {
                q += 2;
                continue;
            }
            if (c == u'>' || c == u'<' || c == u'\n' || c == u'\r')
                break;
            ++q;
        }
        spend(q);
        if (q >= n || m_s[q] != u'>')
            return false;
        rawDestination = m_s.sliced(p + 1, q - p - 1);
        p = q + 1;
    } else {
        qsizetype q = p;
        int depth = 0;
        while (q < n) {
            const char16_t c = m_s[q].unicode();
            if (c == u'\\' && q + 1 < n && isAsciiPunctuation(m_s[q + 1].unicode())) {
                q += 2;
                continue;
            }
            if (c <= 0x20 || c == 0x7F)
                break;
            if (c == u'(') {
                if (++depth > 32)
                    break;
            } else if (c == u')') {
                if (depth == 0)
                    break;
                --depth;
            }
            ++q;
        }
        spend(q);
        if (depth != 0)
            return false;
        rawDestination = m_s.sliced(p, q - p);
        p = q;
    }

    const qsizetype afterSpace = skipSpaceAndOneLineEnding(p);
    if (afterSpace > p && afterSpace < n &&
        (m_s[afterSpace] == u'"' || m_s[afterSpace] == u'\'' || m_s[afterSpace] == u'(')) {
        const char16_t open = m_s[afterSpace].unicode();
        const char16_t close = open == u'(' ? u')' : open;
        qsizetype q = afterSpace + 1;
        bool closed = false;
        while (q < n) {
            const char16_t c = m_s[q].unicode();
            if (c == u'\\' && q + 1 < n && isAsciiPunctuation(m_s[q + 1].unicode())) {
                q += 2;
                continue;
            }
            if (c == close) {
                closed = true;
                break;
            }
            if (open == u'(' && c == u'(')
                break;
            // A title may run over lines but not over a blank line.
            if (c == u'\n') {
                qsizetype k = q + 1;
                while (k < n && (m_s[k] == u' ' || m_s[k] == u'\t' || m_s[k] == u'\r'))
                    ++k;
                if (k < n && m_s[k] == u'\n')
                    break;
            }
            ++q;
        }
        spend(q);
        if (!closed)
            return false;
        p = skipSpaceAndOneLineEnding(q + 1);
    } else {
        p = afterSpace;
    }
    if (p >= n || m_s[p] != u')')
        return false;
    *destination = unescaped(rawDestination);
    *end = p + 1;
    return true;
}

bool Parser::parseAutolink()
{
    const qsizetype n = m_s.size();
    const qsizetype start = m_pos + 1;

    // <scheme:rest>, the scheme 2 to 32 characters.
    qsizetype p = start;
    if (p < n && ((m_s[p] >= u'a' && m_s[p] <= u'z') || (m_s[p] >= u'A' && m_s[p] <= u'Z'))) {
        ++p;
        while (p < n && p - start < 32 &&
               (isAsciiAlnum(m_s[p].unicode()) || m_s[p] == u'+' || m_s[p] == u'.' || m_s[p] == u'-'))
            ++p;
        if (p - start >= 2 && p < n && m_s[p] == u':') {
            qsizetype q = p + 1;
            while (q < n && m_s[q] != u'>' && m_s[q] != u'<' && m_s[q].unicode() > 0x20)
                ++q;
            if (q < n && m_s[q] == u'>') {
                const QString uri = m_s.sliced(start, q - start).toString();
                appendItem(Item{uri, false, uri});
                m_pos = q + 1;
                return true;
            }
        }
    }

    // <local@domain>
    static const QString localChars = QStringLiteral(".!#$%&'*+/=?^_`{|}~-");
    p = start;
    while (p < n && (isAsciiAlnum(m_s[p].unicode()) || localChars.contains(m_s[p])))
        ++p;
    if (p == start || p >= n || m_s[p] != u'@')
        return false;
    ++p;
    while (true) {
        const qsizetype labelStart = p;
        while (p < n && p - labelStart < 63 && (isAsciiAlnum(m_s[p].unicode()) || m_s[p] == u'-'))
            ++p;
        if (p == labelStart || m_s[labelStart] == u'-' || m_s[p - 1] == u'-')
            return false;
        if (p < n && m_s[p] == u'.') {
            ++p;
            continue;
        }
        break;
    }
    if (p >= n || m_s[p] != u'>')
        return false;
    const QString address = m_s.sliced(start, p - start).toString();
    appendItem(Item{address, false, QStringLiteral("mailto:") + address});
    m_pos = p + 1;
    return true;
}

// The length of the raw HTML (a tag, comment, processing instruction, declaration or CDATA
// section) that starts at pos, or 0.
qsizetype Parser::htmlLength(qsizetype pos)
{
    const QStringView rest = m_s.sliced(pos);
    const auto through = [&](ForwardSearch &search, qsizetype from, qsizetype endLength) -> qsizetype {
        const qsizetype end = search.find(m_s, pos + from);
        return end < 0 ? 0 : end + endLength - pos;
    };
    if (rest.startsWith(u"<!--")) {
        if (rest.startsWith(u"<!-->"))
            return 5;
        if (rest.startsWith(u"<!--->"))
            return 6;
        return through(m_commentEnd, 4, 3);
    }
    if (rest.startsWith(u"<?"))
        return through(m_instructionEnd, 2, 2);
    if (rest.startsWith(u"<![CDATA["))
        return through(m_cdataEnd, 9, 3);
    if (rest.size() > 2 && rest[1] == u'!' && isAsciiLetter(rest[2]))
        return through(m_declarationEnd, 3, 1);
    return htmlTagLength(pos);
}

// An open tag <name attribute* /?> or a closing tag </name>.
qsizetype Parser::htmlTagLength(qsizetype pos)
{
    const qsizetype n = m_s.size();
    qsizetype p = pos + 1;
    const bool closing = p < n && m_s[p] == u'/';
    if (closing)
        ++p;
    if (p >= n || !isAsciiLetter(m_s[p]))
        return 0;
    while (p < n && (isAsciiAlnum(m_s[p].unicode()) || m_s[p] == u'-'))
        ++p;
    const auto skipSpace = [&](qsizetype q) {
        while (q < n && isHtmlSpace(m_s[q]))
            ++q;
        return q;
    };
    if (closing) {
        p = skipSpace(p);
        return p < n && m_s[p] == u'>' ? p + 1 - pos : 0;
    }
    while (true) {
        const qsizetype afterSpace = skipSpace(p);
        if (afterSpace < n && m_s[afterSpace] == u'>')
            return afterSpace + 1 - pos;
        if (afterSpace + 1 < n && m_s[afterSpace] == u'/' && m_s[afterSpace + 1] == u'>')
            return afterSpace + 2 - pos;
        // An attribute needs white space before its name.
        if (afterSpace == p || afterSpace >= n)
            return 0;
        p = afterSpace;
        const QChar first = m_s[p];
        if (!isAsciiLetter(first) && first != u'_' && first != u':')
            return 0;
        ++p;
        while (p < n &&
               (isAsciiAlnum(m_s[p].unicode()) || m_s[p] == u'_' || m_s[p] == u'.' || m_s[p] == u':' || m_s[p] == u'-'))
            ++p;
        const qsizetype beforeEquals = skipSpace(p);
        if (beforeEquals >= n || m_s[beforeEquals] != u'=')
            continue;
        p = skipSpace(beforeEquals + 1);
        if (p >= n)
            return 0;
        if (m_s[p] == u'"' || m_s[p] == u'\'') {
            ForwardSearch &search = m_s[p] == u'"' ? m_doubleQuote : m_singleQuote;
            const qsizetype end = search.find(m_s, p + 1);
            if (end < 0)
                return 0;
            p = end + 1;
            continue;
        }
        const qsizetype valueStart = p;
        while (p < n && !isHtmlSpace(m_s[p]) && m_s[p] != u'"' && m_s[p] != u'\'' && m_s[p] != u'=' && m_s[p] != u'<' &&
               m_s[p] != u'>' && m_s[p] != u'`')
            ++p;
        if (p == valueStart)
            return 0;
    }
}

void Parser::removeDelimiter(int index)
{
    Delimiter &d = m_delimiters[index];
    if (d.prev >= 0)
        m_delimiters[d.prev].next = d.next;
    if (d.next >= 0)
        m_delimiters[d.next].prev = d.prev;
    if (m_lastDelimiter == index)
        m_lastDelimiter = d.prev;
    d.prev = d.next = -1;
}

// The CommonMark delimiter algorithm, with the bottom of the opener search remembered per kind of
// closer so that a long run of unmatched delimiters is searched once, not once per closer.
void Parser::processEmphasis(int stackBottom)
{
    std::array<int, 16> openersBottom;
    openersBottom.fill(stackBottom);
    const auto bottomIndex = [](const Delimiter &closer) -> int {
        if (closer.ch == u'~')
            return 12 + (closer.canOpen ? 2 : 0) + int(closer.count - 1);
        return (closer.ch == u'_' ? 6 : 0) + (closer.canOpen ? 3 : 0) + int(closer.originalCount % 3);
    };

    int closer = m_lastDelimiter;
    if (closer <= stackBottom)
        return;
    while (m_delimiters[closer].prev > stackBottom)
        closer = m_delimiters[closer].prev;

    while (closer >= 0) {
        Delimiter &cl = m_delimiters[closer];
        if (!cl.canClose) {
            closer = cl.next;
            continue;
        }
        const int index = bottomIndex(cl);
        int opener = cl.prev;
        bool found = false;
        // Delimiter indices grow with the text, so "above the bottom" is an index comparison; it
        // stays right when the bottom delimiter itself has been removed since.
        while (opener > stackBottom && opener > openersBottom[index]) {
            const Delimiter &op = m_delimiters[opener];
            if (op.ch == cl.ch && op.canOpen) {
                if (cl.ch == u'~') {
                    found = op.count == cl.count;
                } else {
                    const bool oddMatch = (op.canClose || cl.canOpen) &&
                                          (op.originalCount + cl.originalCount) % 3 == 0 &&
                                          !(op.originalCount % 3 == 0 && cl.originalCount % 3 == 0);
                    found = !oddMatch;
                }
                if (found)
                    break;
            }
            opener = op.prev;
        }

        if (!found) {
            openersBottom[index] = cl.prev;
            const int next = cl.next;
            if (!cl.canOpen)
                removeDelimiter(closer);
            closer = next;
            continue;
        }

        Delimiter &op = m_delimiters[opener];
        Style style = Strike;
        qsizetype use = cl.count;
        if (cl.ch != u'~') {
            use = (cl.count >= 2 && op.count >= 2) ? 2 : 1;
            style = use == 2 ? Strong : Emphasis;
        }
        op.count -= use;
        cl.count -= use;
        m_items[op.item].text.chop(use);
        m_items[cl.item].text.remove(0, use);
        m_spans.append({op.item, cl.item, style});

        // Delimiters between the pair can no longer match anything.
        op.next = closer;
        cl.prev = opener;
        if (op.count == 0)
            removeDelimiter(opener);
        if (cl.count == 0) {
            const int next = cl.next;
            removeDelimiter(closer);
            closer = next;
        }
    }

    while (m_lastDelimiter > stackBottom)
        removeDelimiter(m_lastDelimiter);
}

} // namespace

QList<InlineRun> InlineMarkdown::render(QStringView text)
{
    if (text.isEmpty())
        return {};
    QList<InlineRun> runs = Parser(text).run();
    qsizetype total = 0;
    for (const InlineRun &run : std::as_const(runs))
        total += run.text.size();
    // Every construct renders no longer than its source; anything else would be a fault here,
    // and the reader is better served by the source itself.
    if (total > text.size())
        return {InlineRun{text.toString(), false, false, false, false, std::nullopt}};
    return runs;
}

bool InlineMarkdown::isOpenableLink(const QString &target)
{
    const QUrl url(target, QUrl::StrictMode);
    if (!url.isValid())
        return false;
    const QString scheme = url.scheme().toLower();
    if (scheme == u"mailto")
        return !url.path().isEmpty();
    return (scheme == u"http" || scheme == u"https") && !url.host().isEmpty();
}
