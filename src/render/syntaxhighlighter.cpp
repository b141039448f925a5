#include "render/syntaxhighlighter.h"

#include "render/languageprofile.h"
#include "render/memocache.h"

#include <QHash>
#include <QRegularExpressionMatchIterator>

#include <algorithm>

namespace {

MemoCache<StyledCode> &highlightCache()
{
    static MemoCache<StyledCode> cache;
    return cache;
}

// Every pattern runs with Unicode classes (\b, \d, \s as in ICU) and with every line terminator
// of ICU (CR, LF, CRLF, VT, FF, NEL, LS, PS) stopping ".", so a line comment ends where the line
// does whatever the line ending.
QRegularExpression compile(const QString &pattern)
{
    QRegularExpression re(QStringLiteral("(*ANY)") + pattern, QRegularExpression::UseUnicodePropertiesOption);
    re.optimize();
    return re;
}

struct FixedPatterns
{
    QRegularExpression number = compile(QStringLiteral(R"(\b\d[\d_]*(?:\.\d+)?\b)"));
    QRegularExpression hashComment = compile(QStringLiteral("#.*"));
    QRegularExpression lineComment = compile(QStringLiteral("//.*"));
    QRegularExpression blockComment = compile(QStringLiteral(R"(/\*[\s\S]*?\*/)"));
};

const FixedPatterns &fixedPatterns()
{
    static const FixedPatterns patterns;
    return patterns;
}

struct WordPatterns
{
    QRegularExpression keywords;
    QRegularExpression types;
};

QRegularExpression wordPattern(const QStringList &words)
{
    return compile(QStringLiteral("\\b(") + words.join(u'|') + QStringLiteral(")\\b"));
}

// Compiled once per profile and thread; profiles live as long as the process.
const WordPatterns &wordPatterns(const LanguageProfile &profile)
{
    thread_local QHash<const LanguageProfile *, WordPatterns> compiled;
    auto it = compiled.find(&profile);
    if (it == compiled.end())
        it = compiled.insert(&profile, {wordPattern(profile.keywords), wordPattern(profile.types)});
    return it.value();
}

// The matcher needs well-formed UTF-16; a lone surrogate becomes U+FFFD, one unit for one unit,
// so every range still points at the same place in the original code.
QString matchableText(const QString &code)
{
    QString copy;
    const qsizetype n = code.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar c = code[i];
        if (!c.isSurrogate())
            continue;
        if (c.isHighSurrogate() && i + 1 < n && code[i + 1].isLowSurrogate()) {
            ++i;
            continue;
        }
        if (copy.isNull())
            copy = code;
        copy[i] = QChar::ReplacementCharacter;
    }
    return copy.isNull() ? code : copy;
}

bool isLineTerminator(QChar c)
{
    switch (c.unicode()) {
    case 0x0A:
    case 0x0B:
    case 0x0C:
    case 0x0D:
    case 0x85:
    case 0x2028:
    case 0x2029:
        return true;
    default:
        return false;
    }
}

// A line comment covers a unit in GrowingHighlighter's colours of the single-line passes.
constexpr quint8 lineCommentBit = 0x80;

} // namespace

QLatin1StringView codeColorName(CodeColor color)
{
    switch (color) {
    case CodeColor::Base:
        return QLatin1StringView("base");
    case CodeColor::Keyword:
        return QLatin1StringView("keyword");
    case CodeColor::Type:
        return QLatin1StringView("type");
    case CodeColor::Number:
        return QLatin1StringView("number");
    case CodeColor::String:
        return QLatin1StringView("string");
    case CodeColor::Comment:
        return QLatin1StringView("comment");
    }
    return QLatin1StringView("base");
}

CodeColor StyledCode::colorAt(qsizetype index) const
{
    const auto it = std::upper_bound(runs.cbegin(), runs.cend(), index,
                                     [](qsizetype i, const ColorRun &run) { return i < run.start; });
    if (it == runs.cbegin())
        return CodeColor::Base;
    return std::prev(it)->color;
}

StyledCode SyntaxHighlighter::highlighted(const QString &code, const std::optional<QString> &language)
{
    const QString key = language.value_or(QString()) + QChar(0x0001) + code;
    MemoCache<StyledCode> &cache = highlightCache();
    if (const StyledCode *hit = cache.find(key))
        return *hit;
    std::optional<QString> lowered;
    if (language)
        lowered = language->toLower();
    StyledCode styled = build(code, lowered);
    const qsizetype bytes =
        styled.text.size() * qsizetype(sizeof(QChar)) + styled.runs.size() * qsizetype(sizeof(ColorRun));
    return cache.store(key, std::move(styled), bytes);
}

StyledCode SyntaxHighlighter::build(const QString &code, const std::optional<QString> &language)
{
    GrowingHighlighter highlighter(language);
    return highlighter.highlight(code);
}

qsizetype SyntaxHighlighter::cacheSize()
{
    return highlightCache().size();
}

qsizetype SyntaxHighlighter::cacheBytes()
{
    return highlightCache().bytes();
}

void SyntaxHighlighter::clearCache()
{
    highlightCache().clear();
}

GrowingHighlighter::GrowingHighlighter(const std::optional<QString> &language)
    : m_profile(LanguageProfile::profile(language))
{
    m_strings.push_back(Scan(u'"'));
    m_strings.push_back(Scan(u'\''));
    if (m_profile.backtickStrings)
        m_strings.push_back(Scan(u'`'));
}

void GrowingHighlighter::reset()
{
    m_styled = {};
    m_lineColors.clear();
    for (Scan &scan : m_strings)
        scan = Scan(scan.quote);
    m_blockComments = Scan();
    m_lastLineStart = 0;
}

const StyledCode &GrowingHighlighter::highlight(const QString &code)
{
    const qsizetype oldSize = m_styled.text.size();
    if (code.size() == oldSize && code == m_styled.text)
        return m_styled;
    if (code.size() < oldSize || oldSize == 0 || !code.startsWith(m_styled.text))
        reset();
    m_styled.text = code;
    if (code.isEmpty())
        return m_styled;

    // The last line may read differently now that it goes on; every line before it is settled.
    qsizetype from = m_lastLineStart;
    matchLines(code, m_lastLineStart);
    for (Scan &scan : m_strings)
        from = std::min(from, scanQuoted(scan, code));
    if (m_profile.slashComments)
        from = std::min(from, scanBlockComments(m_blockComments, code));
    m_lastLineStart = code.lastIndexOf(u'\n') + 1;
    recolor(from);
    return m_styled;
}

void GrowingHighlighter::matchLines(const QString &code, qsizetype from)
{
    const qsizetype n = code.size();
    m_lineColors.resize(std::size_t(n));
    std::fill(m_lineColors.begin() + from, m_lineColors.end(), quint8(CodeColor::Base));
    // Matched on the lines from `from` alone: no match of these passes crosses a line feed, and
    // a word boundary reads the start of the text as it reads the line feed before it.
    const QString tail = matchableText(code.sliced(from));
    quint8 *out = m_lineColors.data() + from;
    const auto paint = [&](const QRegularExpression &pattern, quint8 value) {
        if (!pattern.isValid())
            return;
        QRegularExpressionMatchIterator it = pattern.globalMatch(tail);
        while (it.hasNext()) {
            const QRegularExpressionMatch match = it.next();
            const qsizetype start = match.capturedStart();
            const qsizetype end = match.capturedEnd();
            if (start < 0 || end <= start)
                continue;
            // Comments are matched last, so a colour never lands on a comment's mark.
            if (value == lineCommentBit) {
                for (qsizetype i = start; i < end; ++i)
                    out[i] |= lineCommentBit;
            } else {
                std::fill(out + start, out + end, value);
            }
        }
    };
    const FixedPatterns &fixed = fixedPatterns();
    if (!m_profile.keywords.isEmpty())
        paint(wordPatterns(m_profile).keywords, quint8(CodeColor::Keyword));
    if (!m_profile.types.isEmpty())
        paint(wordPatterns(m_profile).types, quint8(CodeColor::Type));
    paint(fixed.number, quint8(CodeColor::Number));
    if (m_profile.hashComments)
        paint(fixed.hashComment, lineCommentBit);
    if (m_profile.slashComments)
        paint(fixed.lineComment, lineCommentBit);
}

// The pattern quote (?:\\.|[^quote\\])* quote, run by hand with the same result. It is
// deterministic (a backslash can only start an escape, a quote only end the string), so a string
// that fails to close had every quote it passed over escaped, and they would fail at the same
// place: the search resumes there instead of from each of them, as a regular-expression engine
// would at quadratic cost. Returns where the first string closed by this call starts, or the
// text's size when none did.
qsizetype GrowingHighlighter::scanQuoted(Scan &scan, QStringView text)
{
    const qsizetype n = text.size();
    qsizetype changed = n;
    for (;;) {
        if (scan.open < 0) {
            const qsizetype p = text.indexOf(QChar(scan.quote), scan.searchFrom);
            if (p < 0) {
                scan.searchFrom = n;
                return changed;
            }
            scan.open = p;
            scan.scanAt = p + 1;
        }
        qsizetype q = scan.scanAt;
        bool closed = false;
        bool failed = false;
        while (q < n) {
            const QChar c = text[q];
            if (c == u'\\') {
                // Whether this escapes anything depends on what comes next.
                if (q + 1 == n)
                    break;
                // "." stops at a line terminator, so an escape never spans a line break.
                if (!isLineTerminator(text[q + 1])) {
                    q += 2;
                    continue;
                }
                failed = true;
                break;
            }
            if (c == scan.quote) {
                closed = true;
                break;
            }
            ++q;
        }
        if (!closed && !failed) {
            scan.scanAt = q;
            return changed;
        }
        if (closed) {
            scan.matches.push_back({scan.open, q + 1});
            changed = std::min(changed, scan.open);
        }
        scan.open = -1;
        scan.searchFrom = q + 1;
    }
}

// The pattern /\*[\s\S]*?\*/ run by hand: each "/*" closes at the first "*/" after it. An opener
// without a closer fails, and so does every one after it.
qsizetype GrowingHighlighter::scanBlockComments(Scan &scan, QStringView text)
{
    const qsizetype n = text.size();
    qsizetype changed = n;
    for (;;) {
        if (scan.open < 0) {
            const qsizetype p = text.indexOf(QLatin1StringView("/*"), scan.searchFrom);
            if (p < 0) {
                // A "/" at the end may open a comment with what comes next.
                scan.searchFrom = std::max(scan.searchFrom, n - 1);
                return changed;
            }
            scan.open = p;
            scan.scanAt = p + 2;
        }
        const qsizetype q = text.indexOf(QLatin1StringView("*/"), scan.scanAt);
        if (q < 0) {
            scan.scanAt = std::max(scan.open + 2, n - 1);
            return changed;
        }
        scan.matches.push_back({scan.open, q + 2});
        changed = std::min(changed, scan.open);
        scan.open = -1;
        scan.searchFrom = q + 2;
    }
}

void GrowingHighlighter::recolor(qsizetype from)
{
    const qsizetype n = m_styled.text.size();
    QList<ColorRun> &runs = m_styled.runs;
    while (!runs.isEmpty() && runs.constLast().start >= from)
        runs.removeLast();
    if (!runs.isEmpty() && runs.constLast().start + runs.constLast().length > from)
        runs.last().length = from - runs.constLast().start;

    // Strings over the single-line colours, comments over strings.
    std::vector<CodeColor> colors(std::size_t(n - from));
    for (qsizetype i = from; i < n; ++i)
        colors[std::size_t(i - from)] = CodeColor(m_lineColors[std::size_t(i)] & ~lineCommentBit);
    const auto cover = [&](const std::vector<Match> &matches, CodeColor color) {
        auto it = std::upper_bound(matches.cbegin(), matches.cend(), from,
                                   [](qsizetype at, const Match &m) { return at < m.end; });
        for (; it != matches.cend(); ++it)
            std::fill(colors.begin() + (std::max(it->start, from) - from), colors.begin() + (it->end - from), color);
    };
    for (const Scan &scan : m_strings)
        cover(scan.matches, CodeColor::String);
    for (qsizetype i = from; i < n; ++i) {
        if (m_lineColors[std::size_t(i)] & lineCommentBit)
            colors[std::size_t(i - from)] = CodeColor::Comment;
    }
    cover(m_blockComments.matches, CodeColor::Comment);

    for (qsizetype i = from; i < n;) {
        const CodeColor color = colors[std::size_t(i - from)];
        qsizetype end = i + 1;
        while (end < n && colors[std::size_t(end - from)] == color)
            ++end;
        if (!runs.isEmpty() && runs.constLast().color == color)
            runs.last().length += end - i;
        else
            runs.append({i, end - i, color});
        i = end;
    }
}
