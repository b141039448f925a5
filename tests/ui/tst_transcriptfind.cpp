#include "ui/codeblockview.h"
#include "ui/conversationsidebar.h"
#include "ui/findbar.h"
#include "ui/markdowntextview.h"
#include "ui/messagebubble.h"
#include "ui/tableblockview.h"
#include "ui/transcriptfind.h"
#include "uitestsupport.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QScrollArea>
#include <QScrollBar>

#include <memory>

using namespace Qt::StringLiterals;

class tst_TranscriptFind final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_profile = std::make_unique<StorageTest::Profile>(); }
    void init()
    {
        static int run = 0;
        m_w = std::make_unique<UiTest::ChatWindows>(m_profile->root() + u"/c%1.json"_s.arg(++run));
        QVERIFY(m_w->mock.listen());
        m_w->store.setSelectedID(m_w->addProvider(u"Mock"_s).id);
    }
    void cleanup() { m_w.reset(); }

    void shownSegments_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<QStringList>("shown");
        QTest::newRow("inline marks and link address dropped")
            << u"Read **the** [docs](https://example.com/x) `now` \\*"_s << QStringList{u"Read the docs now *"_s};
        QTest::newRow("heading, list and quote without their marks")
            << u"# Title\n\n- item\n3. third\n> quoted"_s
            << QStringList{u"Title"_s, u"item"_s, u"third"_s, u"quoted"_s};
        QTest::newRow("code as it is") << u"```js\nlet a = \"**x**\";\n```"_s << QStringList{u"let a = \"**x**\";"_s};
        QTest::newRow("only the cells drawn") << u"| A | B |\n|---|---|\n| 1 | **2** | hidden |\n| 3 |"_s
                                              << QStringList{u"A"_s, u"B"_s, u"1"_s, u"2"_s, u"3"_s};
        const QString longLine = u"a"_s.repeated(CodeTextView::maxLineLayout) + u"tail"_s;
        QTest::newRow("code past the drawn columns is blanked")
            << u"```\n"_s + longLine + u"\nnext\n```"_s
            << QStringList{u"a"_s.repeated(CodeTextView::maxLineLayout) + QString(4, QChar(u'\0')) + u"\nnext"_s};
    }
    void shownSegments()
    {
        QFETCH(QString, markdown);
        QFETCH(QStringList, shown);
        QStringList texts;
        for (const TranscriptFind::Segment &segment :
             TranscriptFind::shownSegments(MarkdownTextView::shownBlocks(markdown)))
            texts.append(segment.text);
        QCOMPARE(texts, shown);
    }

    void findBar_countsMovesClosesAndKeepsTheView()
    {
        QList<ChatMessage> messages;
        for (int i = 0; i < 40; ++i)
            messages.append(ChatMessage(ChatRole::assistant, u"Filler paragraph %1.\n\nMore filler."_s.arg(i)));
        messages.insert(3,
                        ChatMessage(ChatRole::user, u"Is the **Café** open? See [menu](https://example.com/cafe)"_s));
        // A table wider than the message, its second hit in the last column; then a long code line.
        messages.insert(30, ChatMessage(ChatRole::assistant,
                                        u"| Place |"_s + u" Column |"_s.repeated(20) + u"\n|---|"_s +
                                            u"---|"_s.repeated(20) + u"\n| cafe |"_s + u" cell |"_s.repeated(19) +
                                            u" cafe |\n\n```\n"_s + u"x"_s.repeated(400) + u" cafe\n```"_s));
        makeView(messages);
        auto *composer = m_view->findChild<QPlainTextEdit *>(u"composer"_s);
        composer->setFocus();
        FindBar *bar = m_view->findBar();
        QVERIFY(bar->isHidden());

        QTest::keyClick(composer, Qt::Key_F, Qt::ControlModifier);
        QVERIFY(bar->isVisible());
        QVERIFY(bar->field()->hasFocus());
        QTest::keyClicks(bar->field(), u"CAFE"_s);
        // The word in bold, in two table cells and on a code line; not in the link's address.
        QCOMPARE(m_view->transcriptFind()->count(), 4);
        QCOMPARE(bar->status(), u"1 of 4"_s);
        QCOMPARE(bar->field()->accessibleDescription(), u"1 of 4"_s);
        QTest::keyClick(bar->field(), Qt::Key_Return);
        QTest::keyClick(bar->field(), Qt::Key_F3);
        QCOMPARE(bar->status(), u"3 of 4"_s);
        // The table strip scrolled sideways to its hit at the end of a wide cell.
        TranscriptArea *area = m_view->findChild<TranscriptView *>()->area();
        MessageBubble *bubble = area->bubbleAt(30);
        QVERIFY(bubble);
        auto *table = bubble->findChild<TableBlockView *>();
        QVERIFY(table->scrollArea()->horizontalScrollBar()->value() > 0);
        QVERIFY(table->rect().intersects(table->currentHitRect()));
        QVERIFY(bubble->geometry().intersects(area->viewport()->rect()));
        QTest::keyClick(bar->field(), Qt::Key_F3);
        QCOMPARE(bar->status(), u"4 of 4"_s);
        auto *code = bubble->findChild<CodeBlockView *>();
        QVERIFY(code->scrollArea()->horizontalScrollBar()->value() > 0);
        QVERIFY(code->rect().intersects(code->currentHitRect()));
        QVERIFY(table->currentHitRect().isEmpty());

        QTest::keyClick(bar->field(), Qt::Key_F3);
        QCOMPARE(bar->status(), u"1 of 4"_s); // wraps
        QTest::keyClick(bar->field(), Qt::Key_Return, Qt::ShiftModifier);
        QCOMPARE(bar->status(), u"4 of 4"_s);
        QTest::keyClick(bar->field(), Qt::Key_F3, Qt::ShiftModifier);
        QCOMPARE(bar->status(), u"3 of 4"_s);
        QTest::keyClicks(bar->field(), u"zz"_s);
        QCOMPARE(bar->status(), u"No results"_s);
        QVERIFY(!bar->findChild<QWidget *>(u"findNextButton"_s)->isEnabled());

        QTest::keyClick(bar->field(), Qt::Key_Backspace);
        QTest::keyClick(bar->field(), Qt::Key_Backspace);
        QCOMPARE(bar->status(), u"3 of 4"_s); // refining the words keeps the place
        QTest::keyClick(bar->field(), Qt::Key_Escape);
        QVERIFY(bar->isHidden());
        QCOMPARE(m_view->transcriptFind()->count(), 0);
        QVERIFY(code->currentHitRect().isEmpty()); // no marks left
        QVERIFY(composer->hasFocus());

        // Words typed pick the first hit in sight and leave the view where it is, even with the
        // paragraph at the top begun above it.
        m_view->openFind();
        bar->field()->clear();
        QScrollBar *scrollBar = area->verticalScrollBar();
        QTest::qWait(300); // the opening's scrolls to the end are done
        // The first paragraph of message 20 begins just above the view.
        scrollBar->setValue(area->rowTop(20));
        const QWidget *first = area->bubbleAt(20)->markdownView()->blockViews().at(0);
        scrollBar->setValue(scrollBar->value() + first->mapTo(area->viewport(), QPoint(0, 0)).y() + 3);
        m_view->scroll()->userDidScroll(false);
        QTest::qWait(50);
        const int value = scrollBar->value();
        QCOMPARE(first->mapTo(area->viewport(), QPoint(0, 0)).y(), -3);

        QTest::keyClicks(m_view->findBar()->field(), u"fil"_s);
        QCOMPARE(scrollBar->value(), value);
        // The second paragraph's: the fillers before it hold two hits each, the café question none.
        QCOMPARE(m_view->transcriptFind()->currentIndex(), 2 * 19 + 1);
        const auto *block = area->bubbleAt(20)->markdownView()->blockViews().at(1);
        const QRect hit(block->mapTo(area->viewport(), block->currentHitRect().topLeft()),
                        block->currentHitRect().size());
        QVERIFY(!hit.isEmpty());
        QVERIFY(area->viewport()->rect().contains(hit));

        // A streaming reply's hits are counted as they come, the first current where it is, and the
        // reply followed as before.
        m_view->findBar()->field()->clear();
        QTest::keyClicks(m_view->findBar()->field(), u"word"_s);
        QCOMPARE(m_view->transcriptFind()->count(), 0);
        m_w->mock.setOptions({.reply = u"word "_s.repeated(100), .tokensPerSecond = 50});
        m_view->chat()->setInput(u"Go"_s);
        m_view->send();
        QTRY_VERIFY(m_view->transcriptFind()->count() >= 3);
        const qsizetype seen = m_view->transcriptFind()->count();
        QCOMPARE(m_view->transcriptFind()->currentIndex(), 0);
        QTRY_VERIFY(m_view->transcriptFind()->count() > seen);
        QCOMPARE(m_view->transcriptFind()->currentIndex(), 0);
        QVERIFY(m_view->scroll()->autoScroll());
        QVERIFY(m_view->findBar()->field()->hasFocus());
        m_view->chat()->stop();
    }

    // A conversation opened is read ahead for the find bar's first word; a sidebar result opens its
    // conversation at the first hit, the bar open with the words.
    void openedConversation_isReadAheadAndOpensAtTheChosenResult()
    {
        QList<ChatMessage> messages;
        for (int i = 0; i < 300; ++i)
            messages.append(
                ChatMessage(ChatRole::assistant, u"Filler %1 with a [link](https://heron.example)."_s.arg(i)));
        messages[7].content = u"| A | B |\n|---|---|\n| **Heron** | x |"_s;
        messages[250].content = u"# A heron\n\n```\nheron()\n```"_s;
        messages[100].content = u"An egret."_s;
        makeView(messages);
        const Conversation first = m_w->chats.selected().value();
        // Another conversation opened while the first is being read, then the first again.
        const Conversation other = m_w->chats.newChat(std::nullopt);
        m_w->chats.updateMessages(other.id, {ChatMessage(ChatRole::user, u"elsewhere"_s)});
        m_w->chats.setSelectedID(other.id);
        QTRY_VERIFY(m_view->transcriptFind()->isPrepared());
        m_w->chats.setSelectedID(first.id);
        QVERIFY(!m_view->transcriptFind()->isPrepared());
        QTRY_VERIFY(m_view->transcriptFind()->isPrepared());
        m_view->openFind();
        QTest::keyClicks(m_view->findBar()->field(), u"heron"_s);
        // As shown: a table cell, a heading and a code line, and no link address.
        QCOMPARE(m_view->findBar()->status(), u"1 of 3"_s);
        // A word added is looked for everywhere, not only where the words before were found.
        QTest::keyClicks(m_view->findBar()->field(), u" egret"_s);
        QCOMPARE(m_view->transcriptFind()->count(), 4);
        QTest::keyClick(m_view->findBar()->field(), Qt::Key_Backspace);
        QCOMPARE(m_view->transcriptFind()->count(), 4);
        QTest::keyClick(m_view->findBar()->field(), Qt::Key_Escape);

        m_w->chats.setSelectedID(other.id);
        auto *field = m_view->findChild<QLineEdit *>(u"searchField"_s);
        auto *list = m_view->findChild<QAbstractItemView *>(u"conversationList"_s);
        field->setFocus();
        QTest::keyClicks(field, u"Heron"_s);
        QTRY_VERIFY(m_view->sidebar()->isSearchComplete());
        QCOMPARE(list->model()->rowCount(), 1);
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualRect(list->model()->index(0, 0)).center());
        FindBar *bar = m_view->findBar();
        QVERIFY(bar->isVisible());
        QCOMPARE(bar->text(), u"Heron"_s);
        QCOMPARE(bar->status(), u"1 of 3"_s);
        // Still there once the switch has settled: its scrolls to the end gave way.
        QTest::qWait(50);
        TranscriptArea *area = m_view->findChild<TranscriptView *>()->area();
        QVERIFY(area->bubbleAt(7));
        QVERIFY(area->viewport()->rect().contains(area->bubbleAt(7)->geometry().center()));
        QVERIFY(!m_view->scroll()->autoScroll());
    }

private:
    void makeView(const QList<ChatMessage> &messages)
    {
        m_w->chats.updateMessages(m_w->chats.newChat(std::nullopt).id, messages);
        m_view = m_w->makeView();
        QApplication::setActiveWindow(m_view);
        QVERIFY(QTest::qWaitForWindowExposed(m_view));
    }

    std::unique_ptr<StorageTest::Profile> m_profile;
    std::unique_ptr<UiTest::ChatWindows> m_w;
    ContentView *m_view = nullptr;
};

QTEST_MAIN(tst_TranscriptFind)
#include "tst_transcriptfind.moc"
