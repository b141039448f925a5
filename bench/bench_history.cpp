// Loading and saving the conversation history at the size of a heavy user's: a 50 MB file of 2,000
// conversations of 20 messages (the shared generator's, or one of the same shape made here when
// the shared folder is missing). Each figure is printed next to its floor on the same machine in
// the same run: reading the bytes, and writing them with fsync and rename. A save is measured as
// the main thread sees it (until the operation returns) and until it is on disk. The daily copies
// are measured over 40 days of starts: the save that makes the day's copy, and what the backups
// folder holds at the end.
#include "harness.h"
#include "model/jsoncoding.h"
#include "storage/conversationstore.h"
#include "storage/historybackups.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryDir>

#include <cstdio>
#include <random>
#include <vector>

namespace {

QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

bool writeFileSynced(const QString &path, const QByteArray &bytes)
{
    // QSaveFile is the floor on purpose: it is the plain temporary-file, fsync and rename.
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
}

// A history of the shared generator's shape: user questions of two sentences, Markdown replies
// (headings, prose with inline marks, fenced code, lists, quotes, tables; non-ASCII, emoji and
// backslashes) of a size that brings the file near targetBytes, usage on every reply.
class HistoryMaker
{
public:
    QList<Conversation> make(qint64 targetBytes, int conversations, int messages)
    {
        const int replySize = std::max(200, int(double(targetBytes) / (conversations * messages / 2.0) * 0.70));
        const QUuid provider = uuid();
        QList<Conversation> list;
        for (int c = 0; c < conversations; ++c) {
            Conversation conversation;
            for (int m = 0; m < messages; ++m) {
                if (m % 2 == 0) {
                    conversation.messages.append(
                        ChatMessage(ChatRole::user, sentence() + u' ' + sentence(), std::nullopt, uuid()));
                } else {
                    const qint64 prompt = between(10, 9000);
                    const qint64 done = between(10, 2000);
                    conversation.messages.append(ChatMessage(ChatRole::assistant, reply(replySize),
                                                             TokenUsage{prompt, done, prompt + done}, uuid()));
                }
            }
            conversation.id = uuid();
            conversation.title = conversation.messages.first().content.left(48).trimmed();
            conversation.createdAt = 725846400.0 + c * 3600.25;
            conversation.updatedAt = conversation.createdAt + 1800.5;
            if (c % 3)
                conversation.providerID = provider;
            list.append(conversation);
        }
        return list;
    }

private:
    qint64 between(qint64 low, qint64 high) { return std::uniform_int_distribution<qint64>(low, high)(m_random); }
    double chance() { return std::uniform_real_distribution<double>(0, 1)(m_random); }
    QUuid uuid()
    {
        const quint64 high = m_random();
        const quint64 low = m_random();
        QUuid id(uint(high >> 32), ushort(high >> 16), ushort((high & 0x0fff) | 0x4000),
                 uchar((low >> 56 & 0x3f) | 0x80), uchar(low >> 48), uchar(low >> 40), uchar(low >> 32),
                 uchar(low >> 24), uchar(low >> 16), uchar(low >> 8), uchar(low));
        return id;
    }
    QString word()
    {
        static const QStringList words =
            QStringLiteral(
                "the renderer streams tokens while memory stays bounded we parse Markdown incrementally "
                "café naïve größer résumé Übersicht 日本語 テキスト данные function latency throughput "
                "widget layout paragraph C:\\Users\\dev\\file.txt backslash cache thread event loop "
                "signal slot buffer unicode emoji ✓ → λ 😀 👨‍👩‍👧 provider model conversation "
                "stream")
                .split(u' ');
        return words.at(between(0, words.size() - 1));
    }
    QString sentence()
    {
        QStringList parts;
        const qint64 count = between(6, 16);
        for (qint64 i = 0; i < count; ++i) {
            QString w = word();
            const double r = chance();
            if (r < 0.06)
                w = QStringLiteral("**%1**").arg(w);
            else if (r < 0.09)
                w = QStringLiteral("*%1*").arg(w);
            else if (r < 0.12)
                w = QStringLiteral("`%1()`").arg(w);
            else if (r < 0.13)
                w = QStringLiteral("[%1](https://example.com/%2)").arg(w).arg(i);
            parts.append(w);
        }
        QString s = parts.join(u' ');
        s[0] = s[0].toUpper();
        return s + u'.';
    }
    QString paragraph()
    {
        QStringList sentences;
        for (qint64 i = between(2, 5); i > 0; --i)
            sentences.append(sentence());
        return sentences.join(u' ');
    }
    QString code()
    {
        static const QList<std::pair<QString, QStringList>> languages = {
            {QStringLiteral("python"),
             {QStringLiteral("def f%1(x, *a, **kw):"),
              QStringLiteral("    return {\"p\": \"C:\\\\tmp\\\\f%1\"}  # naïve → fast"),
              QStringLiteral("    for k in range(%1): total += k * 2")}},
            {QStringLiteral("javascript"),
             {QStringLiteral("const v%1 = await fetch(`/api/${id}`);"),
              QStringLiteral("  const re = /\\d+\\s*\\\\/g; // backslashes %1"),
              QStringLiteral("  console.log(\"größe ✓\", x%1);")}},
            {QStringLiteral("rust"),
             {QStringLiteral("fn step_%1(v: &mut Vec<u32>) -> u32 {"),
              QStringLiteral("    let p = r\"C:\\Users\\dev\\f%1\";"),
              QStringLiteral("    v.iter().map(|x| x * %1).sum::<u32>()")}},
            {QString(),
             {QStringLiteral("$ make test"), QStringLiteral("plain text line %1"), QStringLiteral("    indented %1")}},
        };
        const auto &[language, lines] = languages.at(between(0, languages.size() - 1));
        QStringList body;
        for (qint64 i = 0, n = between(4, 30); i < n; ++i)
            body.append(
                QString(lines.at(between(0, lines.size() - 1))).replace(QStringLiteral("%1"), QString::number(i)));
        return QStringLiteral("```%1\n%2\n```").arg(language, body.join(u'\n'));
    }
    QString table()
    {
        QStringList rows = {QStringLiteral("| Name | Value | Notes |"), QStringLiteral("|---|---:|:---|")};
        for (qint64 i = 0, n = between(2, 8); i < n; ++i)
            rows.append(QStringLiteral("| item_%1 | %2 | %3 |").arg(i).arg(double(i) * 3.14159, 0, 'f', 2).arg(word()));
        return rows.join(u'\n');
    }
    QString reply(int size)
    {
        QStringList parts = {QStringLiteral("## ") + sentence().left(40)};
        qsizetype length = parts.first().size();
        while (length < size) {
            const double r = chance();
            QString part;
            if (r < 0.45) {
                part = paragraph();
            } else if (r < 0.65) {
                part = code();
            } else if (r < 0.75) {
                QStringList items;
                for (qint64 i = between(2, 5); i > 0; --i)
                    items.append(QStringLiteral("- ") + sentence());
                part = items.join(u'\n');
            } else if (r < 0.82) {
                QStringList items;
                for (qint64 i = 0, n = between(2, 4); i < n; ++i)
                    items.append(QStringLiteral("%1. %2").arg(i + 1).arg(sentence()));
                part = items.join(u'\n');
            } else if (r < 0.88) {
                part = QStringLiteral("> ") + sentence();
            } else {
                part = table();
            }
            length += part.size();
            parts.append(part);
        }
        return parts.join(QStringLiteral("\n\n"));
    }

    std::mt19937_64 m_random{2001};
};

// The shared generator when it is there; otherwise the same shape made here.
bool makeHistory(const QString &path)
{
    if (QFileInfo::exists(Bench::historyGenerator()))
        return Bench::generateHistory(path);
    std::fprintf(stderr, "bench_history: %s is missing; generating a history of the same shape\n",
                 qPrintable(Bench::historyGenerator()));
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(encodeJson(HistoryMaker().make(50'000'000, 2000, 20))) > 0 &&
           file.commit();
}

double elapsedMs(const QElapsedTimer &timer)
{
    return double(timer.nsecsElapsed()) / 1e6;
}

} // namespace

int main()
{
    QTemporaryDir dir;
    if (!dir.isValid())
        return 1;
    const QString history = dir.filePath(QStringLiteral("conversations.json"));
    if (!makeHistory(history)) {
        std::fprintf(stderr, "bench_history: could not generate the history\n");
        return 1;
    }
    const QByteArray bytes = readFile(history);
    Bench::report("history size", double(bytes.size()) / 1e6, "MB");

    constexpr int runs = 7;
    const double readFloor = Bench::medianMs(runs, [&] { (void)readFile(history).size(); });
    qsizetype loaded = 0;
    const double load = Bench::medianMs(runs, [&] {
        ConversationStore store(history);
        loaded = store.conversations().size();
    });
    Bench::report("conversations loaded", double(loaded), "");
    Bench::report("read floor (bytes from disk)", readFloor, "ms");
    Bench::report("load (ConversationStore on the file)", load, "ms");
    Bench::report("load / read floor (aim: at most 2)", load / readFloor, "x");

    const QString copy = dir.filePath(QStringLiteral("floor.json"));
    const double writeFloor = Bench::medianMs(runs, [&] { writeFileSynced(copy, bytes); });

    // What the main thread waits for is the operation itself; the writer thread does the rest.
    std::vector<double> blocks;
    std::vector<double> onDisk;
    std::vector<double> firstBlocks;
    for (int start = 0; start < 3; ++start) {
        ConversationStore store(history);
        for (int i = 0; i < 2 * runs; ++i) {
            const Conversation last = store.conversations().last();
            QElapsedTimer timer;
            timer.start();
            store.updateMessages(last.id, last.messages);
            const double block = elapsedMs(timer);
            (i == 0 ? firstBlocks : blocks).push_back(block);
            store.waitForSaved();
            onDisk.push_back(elapsedMs(timer));
        }
        if (store.lastSaveError()) {
            std::fprintf(stderr, "bench_history: save failed: %s\n", qPrintable(*store.lastSaveError()));
            return 1;
        }
    }
    Bench::report("write floor (bytes with fsync and rename)", writeFloor, "ms");
    Bench::report("save: main thread blocked, median (aim: 5)", Bench::median(blocks), "ms");
    Bench::report("save: main thread blocked, max (aim: 5)", *std::max_element(blocks.begin(), blocks.end()), "ms");
    Bench::report("first save after a start: main thread blocked", Bench::median(firstBlocks), "ms");
    Bench::report("save: until on disk, median", Bench::median(onDisk), "ms");
    Bench::report("save on disk / write floor", Bench::median(onDisk) / writeFloor, "x");

    // One start a day, each with a first save that keeps the day's copy in the writer thread.
    constexpr int days = 40;
    const QDate first(2026, 1, 5);
    std::vector<double> backupBlocks;
    std::vector<double> backupOnDisk;
    for (int day = 0; day < days; ++day) {
        ConversationStore store(history);
        store.setToday([=] { return first.addDays(day); });
        const Conversation last = store.conversations().last();
        QElapsedTimer timer;
        timer.start();
        store.updateMessages(last.id, last.messages);
        backupBlocks.push_back(elapsedMs(timer));
        store.waitForSaved();
        backupOnDisk.push_back(elapsedMs(timer));
        if (store.lastSaveError()) {
            std::fprintf(stderr, "bench_history: save failed: %s\n", qPrintable(*store.lastSaveError()));
            return 1;
        }
    }
    const QList<HistoryBackups::Copy> copies = HistoryBackups::list(history);
    qint64 backupBytes = 0;
    for (const HistoryBackups::Copy &c : copies)
        backupBytes += QFileInfo(c.path).size();
    Bench::report("save with the day's copy: main thread blocked, median (aim: 5)", Bench::median(backupBlocks), "ms");
    Bench::report("save with the day's copy: main thread blocked, max (aim: 5)",
                  *std::max_element(backupBlocks.begin(), backupBlocks.end()), "ms");
    Bench::report("save with the day's copy: until on disk, median", Bench::median(backupOnDisk), "ms");
    Bench::report("copies kept after 40 days (aim: at most 12)", double(copies.size()), "");
    Bench::report("  backups folder / history size", double(backupBytes) / double(bytes.size()), "x");
    return 0;
}
