// Loading and saving the conversation history at the size of a heavy user's: a generated 50 MB
// file of 2,000 conversations of 20 messages. Each figure is printed next to its floor on the
// same machine in the same run: reading the bytes, and writing them with fsync and rename.
#include "harness.h"
#include "storage/conversationstore.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryDir>

#include <cstdio>
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

} // namespace

int main()
{
    QTemporaryDir dir;
    if (!dir.isValid())
        return 1;
    const QString history = dir.filePath(QStringLiteral("conversations.json"));
    const QString generator = Bench::dataDir() + QStringLiteral("/gen_history.py");
    const int generated = QProcess::execute(QStringLiteral("python3"), {generator, history});
    if (generated != 0 || !QFileInfo::exists(history)) {
        std::fprintf(stderr, "bench_history: could not generate the history with %s\n", qPrintable(generator));
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
    Bench::report("load / read floor", load / readFloor, "x");

    const QString copy = dir.filePath(QStringLiteral("floor.json"));
    const double writeFloor = Bench::medianMs(runs, [&] { writeFileSynced(copy, bytes); });

    ConversationStore store(history);
    if (store.conversations().isEmpty())
        return 1;
    const Conversation last = store.conversations().last();
    const double save = Bench::medianMs(runs, [&] { store.updateMessages(last.id, last.messages); });
    if (store.lastSaveError()) {
        std::fprintf(stderr, "bench_history: save failed: %s\n", qPrintable(*store.lastSaveError()));
        return 1;
    }
    // The first save after a start encodes every conversation; later ones only what changed.
    std::vector<double> firstSaves;
    for (int i = 0; i < 3; ++i) {
        ConversationStore fresh(history);
        const Conversation oldest = fresh.conversations().last();
        QElapsedTimer timer;
        timer.start();
        fresh.updateMessages(oldest.id, oldest.messages);
        firstSaves.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    const double firstSave = Bench::median(firstSaves);

    Bench::report("write floor (bytes with fsync and rename)", writeFloor, "ms");
    Bench::report("save (updateMessages, whole file)", save, "ms");
    Bench::report("save / write floor", save / writeFloor, "x");
    Bench::report("first save after load (encodes everything)", firstSave, "ms");
    Bench::report("first save / write floor", firstSave / writeFloor, "x");
    return 0;
}
