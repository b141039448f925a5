#include "storage/conversationstore.h"
#include "storage/historyfile.h"
#include "storagetestsupport.h"
#include "ui/deletedchatbar.h"

#include <QPushButton>
#include <QTest>

using namespace Qt::StringLiterals;
using StorageTest::conversation;

class tst_DeletedChatBar final : public QObject
{
    Q_OBJECT

private slots:
    void undo_bringsTheChatBackWhereItWas_data()
    {
        QTest::addColumn<int>("deleted");
        QTest::newRow("the chat on show") << 0;
        QTest::newRow("another chat") << 1;
    }
    void undo_bringsTheChatBackWhereItWas()
    {
        QFETCH(int, deleted);
        QTemporaryDir dir;
        ConversationStore chats(dir.filePath(u"conversations.json"_s));
        chats.merge({conversation(u"newest"_s, 300), conversation(u"middle"_s, 200), conversation(u"oldest"_s, 100)});
        const QList<Conversation> before = chats.conversations();
        const QUuid shown = before.at(0).id;
        QCOMPARE(chats.selectedID(), shown);

        DeletedChatBar bar(&chats);
        const Conversation gone = before.at(deleted);
        chats.deleteConversation(gone);
        bar.offer(gone, gone.id == shown);
        QVERIFY(!bar.isHidden());

        QTest::mouseClick(bar.findChild<QPushButton *>(u"undoDelete"_s), Qt::LeftButton);
        QVERIFY(bar.isHidden());
        QCOMPARE(chats.conversations(), before);
        QCOMPARE(chats.selectedID(), shown);
        chats.waitForSaved();
        QCOMPARE(HistoryFile::read(chats.fileURL()).conversations, before);
    }

    void offer_endsAfterItsTime()
    {
        QTemporaryDir dir;
        ConversationStore chats(dir.filePath(u"conversations.json"_s));
        chats.merge({conversation(u"first"_s, 200), conversation(u"second"_s, 100)});
        const Conversation first = chats.conversations().at(0);
        const Conversation second = chats.conversations().at(1);
        DeletedChatBar bar(&chats);
        bar.setInterval(50);
        chats.deleteConversation(first);
        bar.offer(first, true);
        // A second delete takes the bar over: undo brings back the latest only.
        chats.deleteConversation(second);
        bar.offer(second, false);
        QTRY_VERIFY(bar.isHidden());
        bar.undo();
        QVERIFY(chats.conversations().isEmpty());
    }
};

QTEST_MAIN(tst_DeletedChatBar)
#include "tst_deletedchatbar.moc"
