#pragma once

// A small benchmark harness: run a piece of work several times and print the median.
// Figures are printed, never asserted.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <vector>

namespace Bench {

// CPU time of the whole process (all threads), in seconds.
inline double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// CPU time of the calling thread only, in seconds.
inline double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

inline double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs f() `runs` times (after one warm-up run) and returns the median wall time in ms.
template<typename F>
double medianMs(int runs, F &&f)
{
    f();
    std::vector<double> times;
    times.reserve(std::size_t(runs));
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        f();
        times.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    return median(times);
}

// One result line: "<name>: <value> <unit>".
inline void report(const char *name, double value, const char *unit)
{
    std::printf("%-48s %12.3f %s\n", name, value, unit);
    std::fflush(stdout);
}

// The shared inputs (../shared/bench-data beside the repository), or an override. The long
// reply has a stand-in below when they are missing.
// A profile of the benchmark's own, in a temporary folder, on the offscreen platform unless
// another is named: made before the application, so that no store reads the user's files.
class ScratchProfile
{
public:
    ScratchProfile()
    {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("config"))));
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral("data"))));
    }
    bool isValid() const { return m_dir.isValid(); }
    QString filePath(const QString &name) const { return m_dir.filePath(name); }

private:
    QTemporaryDir m_dir;
};

inline QString dataDir()
{
    const QByteArray env = qgetenv("VERBOLT_BENCH_DATA");
    return env.isEmpty() ? QStringLiteral(VERBOLT_BENCH_DATA) : QString::fromLocal8Bit(env);
}

inline QString historyGenerator()
{
    return dataDir() + QStringLiteral("/gen_history.py");
}

// Writes the shared generator's history (about 50 MB, 2,000 conversations) to path. False when
// the generator is not there or did not make the file: the caller makes its own or gives up.
inline bool generateHistory(const QString &path)
{
    return QFileInfo::exists(historyGenerator()) &&
           QProcess::execute(QStringLiteral("python3"), {historyGenerator(), path}) == 0 && QFileInfo::exists(path);
}

// A Markdown reply of the shape of the shared 20,000-token one, made here for a clone of the
// repository that lacks the shared inputs: about 86 KB of prose with inline marks and non-ASCII
// words, headings, bullet lists, six 60-line code blocks (Python, JavaScript, Rust) and two
// 12-row tables. The same text on every run.
inline QString generatedLongReply()
{
    using namespace Qt::StringLiterals;
    const QStringList words =
        QString::fromUtf8("the we loop cache event slot signal widget layout buffer thread memory parse "
                          "renderer tokens latency throughput stays bounded while path function paragraph "
                          "streams incrementally backslash unicode emoji Markdown café résumé naïve größer "
                          "Übersicht данные 日本語 テキスト λ → ✓ C:\\Users\\dev")
            .split(u' ');
    std::uint32_t state = 20000;
    const auto next = [&state](std::uint32_t bound) {
        state = state * 1664525u + 1013904223u;
        return (state >> 8) % bound;
    };
    const auto word = [&] { return words[qsizetype(next(std::uint32_t(words.size())))]; };
    const auto marked = [&](int i) -> QString {
        const QString w = word();
        switch (next(8)) {
        case 0:
            return u"**"_s + w + u"**"_s;
        case 1:
            return u"*"_s + w + u"*"_s;
        case 2:
            return u"`"_s + w + u"()`"_s;
        case 3:
            return u"["_s + w + u"](https://example.com/"_s + QString::number(i % 12) + u")"_s;
        default:
            return w;
        }
    };
    const auto sentence = [&]() -> QString {
        QString s = word();
        s[0] = s[0].toUpper();
        const int n = 6 + int(next(12));
        for (int i = 0; i < n; ++i)
            s += u' ' + marked(i);
        return s + u'.';
    };
    const QStringList codeLines[3] = {
        {u"def step_%1(items):"_s, u"    total = sum(x * %1 for x in items)  # größe"_s,
         u"    return {\"path\": r\"C:\\Users\\dev\\f%1\"}"_s, u"    if n > %1: yield n"_s},
        {u"function step%1(items) {"_s, u"  const total = items.reduce((a, x) => a + x * %1, 0); // ✓"_s,
         u"  return `path ${total} résumé %1`;"_s, u"}"_s},
        {u"fn step_%1(v: &mut Vec<u32>) -> Result<(), Error> {"_s, u"    let s = String::from(\"größe {}\\n\");"_s,
         u"    match x { Some(n) if n > %1 => n, _ => 0 }"_s, u"}"_s}};
    const char *const languages[3] = {"python", "javascript", "rust"};

    QString out;
    int codeBlocks = 0, tables = 0;
    for (int section = 1; out.size() < 80000 || codeBlocks < 6 || tables < 2; ++section) {
        out += u"## Section "_s + QString::number(section) + u": "_s + word() + u"\n\n"_s;
        for (int p = 0, n = 2 + int(next(3)); p < n; ++p) {
            QString paragraph = sentence();
            for (int i = 0, m = 2 + int(next(4)); i < m; ++i)
                paragraph += u' ' + sentence();
            out += paragraph + u"\n\n"_s;
        }
        if (next(2) == 0)
            out += u"- "_s + sentence() + u"\n- "_s + sentence() + u"\n\n"_s;
        if (section % 6 == 3 && codeBlocks < 6) {
            const int language = codeBlocks % 3;
            out += u"```"_s + QLatin1StringView(languages[language]) + u'\n';
            for (int line = 0; line < 60; ++line)
                out += QString(codeLines[language][line % 4]).replace(u"%1"_s, QString::number(line)) + u'\n';
            out += u"```\n\n"_s;
            ++codeBlocks;
        }
        if (section % 20 == 15 && tables < 2) {
            out += u"| Name | Value | Notes | Ünit |\n|---|---:|:---|:--:|\n"_s;
            for (int row = 0; row < 12; ++row)
                out += u"| item_%1 | %2 | %3 `x%1` | ms |\n"_s.arg(row).arg(row * 3.14159, 0, 'f', 2).arg(word());
            out += u'\n';
            ++tables;
        }
    }
    return out;
}

// The path of the 20,000-token reply: the shared file, or the generated reply written once to a
// temporary file that lives as long as the process.
inline QString longReplyFile()
{
    const QString shared = dataDir() + QStringLiteral("/reply-20k-tokens.md");
    if (QFile::exists(shared))
        return shared;
    static QTemporaryDir dir;
    static const QString generated = [] {
        const QString path = dir.filePath(QStringLiteral("reply-20k-tokens.md"));
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(generatedLongReply().toUtf8());
        return path;
    }();
    return generated;
}

// The 20,000-token reply's text (see longReplyFile).
inline QString longReply()
{
    QFile file(longReplyFile());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : generatedLongReply();
}

// A field of /proc/<pid>/status in kB ("VmRSS", "VmHWM"), or -1.
inline double statusKb(const char *field, long pid = 0)
{
    QFile file(pid ? QStringLiteral("/proc/%1/status").arg(pid) : QStringLiteral("/proc/self/status"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = QByteArray(field) + ':';
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').value(0).toDouble();
    }
    return -1;
}

// This process's resident memory in MiB.
inline double residentMiB()
{
    return statusKb("VmRSS") / 1024.0;
}

} // namespace Bench
