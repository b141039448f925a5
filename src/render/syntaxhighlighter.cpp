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

// The string passes, the pattern quote (?:\\.|[^quote\\])* quote run by hand with the same result.
// The pattern is deterministic (a backslash can only start an escape, a quote only end the
// string), so when a string fails to close, every quote it passed over was escaped and would
// fail at the same place; the search resumes there instead of rescanning the tail from each of
// them, which a regular-expression engine does at quadratic cost.
void applyQuoted(char16_t quote, CodeColor color, QStringView text, QList<CodeColor> &colors)
{
    const qsizetype n = text.size();
    qsizetype p = 0;
    while (p < n) {
        p = text.indexOf(QChar(quote), p);
        if (p < 0)
            return;
        qsizetype q = p + 1;
        bool closed = false;
        while (q < n) {
            const QChar c = text[q];
            if (c == u'\\') {
                // "." stops at a line terminator, so an escape never spans a line break.
                if (q + 1 < n && !isLineTerminator(text[q + 1])) {
                    q += 2;
                    continue;
                }
                break;
            }
            if (c == quote) {
                closed = true;
                break;
            }
            ++q;
        }
        if (closed)
            std::fill(colors.begin() + p, colors.begin() + q + 1, color);
        p = q + 1;
    }
}

QList<ColorRun> mergedRuns(const QList<CodeColor> &colors)
{
    QList<ColorRun> runs;
    const qsizetype n = colors.size();
    for (qsizetype i = 0; i < n;) {
        qsizetype end = i + 1;
        while (end < n && colors[end] == colors[i])
            ++end;
        runs.append({i, end - i, colors[i]});
        i = end;
    }
    return runs;
}

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
    StyledCode result;
    result.text = code;
    if (code.isEmpty())
        return result;

    const QString text = matchableText(code);
    const qsizetype length = text.size();
    QList<CodeColor> colors(length, CodeColor::Base);
    const LanguageProfile &profile = LanguageProfile::profile(language);
    const FixedPatterns &fixed = fixedPatterns();

    if (!profile.keywords.isEmpty())
        apply(wordPatterns(profile).keywords, CodeColor::Keyword, text, colors, 0, length);
    if (!profile.types.isEmpty())
        apply(wordPatterns(profile).types, CodeColor::Type, text, colors, 0, length);
    apply(fixed.number, CodeColor::Number, text, colors, 0, length);
    applyQuoted(u'"', CodeColor::String, text, colors);
    applyQuoted(u'\'', CodeColor::String, text, colors);
    if (profile.backtickStrings)
        applyQuoted(u'`', CodeColor::String, text, colors);
    if (profile.hashComments)
        apply(fixed.hashComment, CodeColor::Comment, text, colors, 0, length);
    if (profile.slashComments) {
        apply(fixed.lineComment, CodeColor::Comment, text, colors, 0, length);
        // No block comment can end after the last "*/"; searching only up to it gives the same
        // matches and keeps a run of unclosed "/*" from rescanning the tail once per opener.
        const qsizetype lastClose = text.lastIndexOf(QLatin1StringView("*/"));
        if (lastClose >= 0)
            apply(fixed.blockComment, CodeColor::Comment, text, colors, 0, lastClose + 2);
    }

    result.runs = mergedRuns(colors);
    return result;
}

void SyntaxHighlighter::apply(const QRegularExpression &pattern, CodeColor color, QStringView text,
                              QList<CodeColor> &colors, qsizetype rangeStart, qsizetype rangeLength)
{
    if (!pattern.isValid() || rangeStart < 0 || rangeLength <= 0 || rangeStart + rangeLength > text.size() ||
        colors.size() < text.size())
        return;
    const QStringView range = text.sliced(rangeStart, rangeLength);
    QRegularExpressionMatchIterator it = pattern.globalMatch(range);
    CodeColor *out = colors.data() + rangeStart;
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        const qsizetype start = match.capturedStart();
        const qsizetype end = match.capturedEnd();
        if (start < 0 || end <= start)
            continue;
        std::fill(out + start, out + end, color);
    }
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
