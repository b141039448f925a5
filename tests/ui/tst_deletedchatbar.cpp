#include "storage/conversationstore.h"
#include "storagetestsupport.h"
#include "ui/deletedchatbar.h"

#include <QTest>

using namespace Qt::StringLiterals;
using StorageTest::conversation;

class tst_DeletedChatBar final : public QObject
{
    Q_OBJECT

private slots:
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
