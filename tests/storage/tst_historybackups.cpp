#include "model/conversation.h"
#include "storage/conversationstore.h"
#include "storage/historybackups.h"
#include "storage/historyfile.h"
#include "storagetestsupport.h"

#include <QDateTime>
#include <QTest>

using namespace Qt::StringLiterals;
using StorageTest::conversation;

namespace {

// ReferenceDate seconds at noon, local time, of date.
double noonOf(QDate date)
{
    return ReferenceDate::fromDateTime(QDateTime(date, QTime(12, 0)));
}

QList<QDate> datesIn(const QString &historyPath)
{
    QList<QDate> dates;
    for (const HistoryBackups::Copy &copy : HistoryBackups::list(historyPath))
        dates.append(copy.date);
    return dates;
}

} // namespace

class tst_HistoryBackups final : public QObject
{
    Q_OBJECT

private slots:
    // Which copies survive a prune, by their age in days on a Wednesday.
    void prune_keepsSevenDaysAndFourWeeks_data()
    {
        QTest::addColumn<QList<int>>("ages");
        QTest::addColumn<QList<int>>("kept");
        QList<int> everyDay;
        for (int age = 0; age < 60; ++age)
            everyDay.append(age);
        // Past the daily copies, each of the four weeks before keeps its newest: 7, 10, 17 and 24 days ago.
        QTest::newRow("a copy every day") << everyDay << QList<int>{0, 1, 2, 3, 4, 5, 6, 7, 10, 17, 24};
        QTest::newRow("sparse copies keep the newest of each week")
            << QList<int>{1, 8, 9, 12, 20, 29, 31, 40} << QList<int>{1, 8, 12, 20, 29};
        QTest::newRow("a copy dated tomorrow is kept") << QList<int>{-1, 0} << QList<int>{-1, 0};
    }
    void prune_keepsSevenDaysAndFourWeeks()
    {
        QFETCH(QList<int>, ages);
        QFETCH(QList<int>, kept);
        QTemporaryDir dir;
        const QString history = dir.filePath(u"conversations.json"_s);
        const QDate wednesday(2026, 11, 25);
        for (int age : ages)
            QVERIFY(StorageTest::writeAll(HistoryBackups::pathFor(history, wednesday.addDays(-age)), "[]"));
        const QString stranger = HistoryBackups::folderFor(history) + u"/notes.txt"_s;
        QVERIFY(StorageTest::writeAll(stranger, "mine"));

        HistoryBackups::prune(HistoryBackups::folderFor(history), wednesday);

        QList<QDate> expected;
        for (int age : kept)
            expected.append(wednesday.addDays(-age));
        QCOMPARE(datesIn(history), expected);
        QVERIFY(QFile::exists(stranger));
    }

    void firstSaveOfTheDay_keepsTheStateBeforeIt_whenItCan()
    {
        QTemporaryDir dir;
        const QString history = dir.filePath(u"conversations.json"_s);
        QDate day(2026, 11, 20);
        ConversationStore store(history);
        store.setToday([&] { return day; });
        store.merge({conversation(u"first"_s, noonOf(day) - 86400)});
        store.waitForSaved();
        // The very first save found no history to keep.
        QVERIFY(datesIn(history).isEmpty());

        day = day.addDays(1);
        const QByteArray before = StorageTest::readAll(history);
        store.merge({conversation(u"second"_s, noonOf(day))});
        store.merge({conversation(u"third"_s, noonOf(day))});
        store.waitForSaved();
        const QString copy = HistoryBackups::pathFor(history, day);
        QCOMPARE(datesIn(history), QList<QDate>{day});
        QCOMPARE(StorageTest::readAll(copy), before);
        QVERIFY(StorageTest::isOwnerOnly(copy));
        QCOMPARE(HistoryBackups::countConversations(copy), qsizetype(1));
        QCOMPARE(HistoryFile::read(history).conversations.size(), 3);

        // A copy that cannot be made (a file stands where the folder of copies should be) never
        // stops the save.
        QVERIFY(QDir(HistoryBackups::folderFor(history)).removeRecursively());
        QVERIFY(StorageTest::writeAll(HistoryBackups::folderFor(history), "in the way"));
        day = day.addDays(1);
        store.merge({conversation(u"fourth"_s, noonOf(day))});
        store.waitForSaved();
        QCOMPARE(store.lastSaveError(), std::nullopt);
        QCOMPARE(HistoryFile::read(history).conversations.size(), 4);
    }

    void restore_bringsBackMissingAndOlderOnly()
    {
        QTemporaryDir dir;
        ConversationStore store(dir.filePath(u"conversations.json"_s));
        const Conversation kept = conversation(u"kept"_s, 100);
        const Conversation edited = conversation(u"edited since"_s, 300);
        const Conversation stale = conversation(u"stale here"_s, 50);
        const Conversation onlyHere = conversation(u"only here"_s, 400);
        store.merge({kept, edited, stale, onlyHere});

        Conversation oldEdited = edited;
        oldEdited.title = u"old title"_s;
        oldEdited.updatedAt = 200;
        Conversation newerStale = stale;
        newerStale.title = u"from the copy"_s;
        newerStale.updatedAt = 250;
        const Conversation deleted = conversation(u"deleted"_s, 150);
        const QList<Conversation> copy = {kept, oldEdited, newerStale, deleted};

        QCOMPARE(store.restore(copy), qsizetype(2));
        QCOMPARE(StorageTest::each(store.conversations(), &Conversation::title),
                 (QStringList{u"only here"_s, u"edited since"_s, u"from the copy"_s, u"deleted"_s, u"kept"_s}));
        store.waitForSaved();
        QCOMPARE(HistoryFile::read(store.fileURL()).conversations.size(), 5);
        QCOMPARE(store.restore(copy), qsizetype(0));
    }
};

QTEST_GUILESS_MAIN(tst_HistoryBackups)
#include "tst_historybackups.moc"
