#include "ui/codeblockview.h"
#include "ui/messagebubble.h"
#include "ui/panecycler.h"
#include "uitestsupport.h"

#include <QAccessible>
#include <QApplication>
#include <QClipboard>
#include <QLineEdit>
#include <QMetaEnum>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>
#include <QScrollBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <private/qguiapplication_p.h>

using namespace Qt::StringLiterals;

namespace {

const QString everyBlock = u"# Plan\n"
                           "Show me **everything** in [the docs](https://example.com/docs).\n"
                           "- first\n"
                           "3. third\n"
                           "> quoted\n"
                           "```python\n"
                           "print(\"hi\")\n"
                           "x = 1\n"
                           "```\n"
                           "| Name | **Size** |\n"
                           "|---|---|\n"
                           "| a | 1 | hidden |\n"
                           "| b |\n"_s;

struct Node
{
    QAccessible::Role role;
    QString name;
    QString description;
    QString text;
};

// Every node below root, depth first, after checking that each child names its parent and its
// parent finds it at its index: a reader walks the tree both ways.
void collect(QAccessibleInterface *root, QList<Node> &out)
{
    for (int i = 0; i < root->childCount(); ++i) {
        QAccessibleInterface *child = root->child(i);
        QVERIFY2(child, qPrintable(u"no child %1 of %2"_s.arg(i).arg(root->text(QAccessible::Name))));
        QCOMPARE(child->parent(), root);
        QCOMPARE(root->indexOfChild(child), i);
        QString text;
        if (QAccessibleTextInterface *t = child->textInterface())
            text = t->text(0, t->characterCount());
        out.append({child->role(), child->text(QAccessible::Name), child->text(QAccessible::Description), text});
        collect(child, out);
    }
}

QAccessibleActionInterface *actions(QAccessibleInterface *item, const QString &name)
{
    QAccessibleActionInterface *a = item->actionInterface();
    return a && a->actionNames().contains(name) ? a : nullptr;
}

} // namespace

// What a screen reader finds in a transcript: each message one item reading as it is shown; and
// how a keyboard moves through it, in a window of three panes as the main window has.
class tst_TranscriptAccessible final : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_chat = std::make_unique<ChatViewModel>();
        m_scroll = std::make_unique<ScrollController>();
        m_window = std::make_unique<QWidget>();
        auto *layout = new QVBoxLayout(m_window.get());
        m_list = new QLineEdit(m_window.get());
        m_view = new TranscriptView(m_chat.get(), m_scroll.get(), m_window.get());
        m_composer = new QLineEdit(m_window.get());
        layout->addWidget(m_list);
        layout->addWidget(m_view, 1);
        layout->addWidget(m_composer);
        auto *panes = new PaneCycler(m_window.get(), [this] { return QList<QWidget *>{m_list, m_view, m_composer}; });
        panes->returnOnEscape(m_view, m_composer);
        m_window->resize(700, 900);
        m_window->show();
        m_window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        m_composer->setFocus();
    }
    void cleanup()
    {
        m_window.reset();
        m_chat.reset();
        m_scroll.reset();
    }

    void messageReadsAsShown()
    {
        ChatMessage reply(ChatRole::assistant, everyBlock);
        reply.usage = TokenUsage{12, 34, 46};
        show({ChatMessage(ChatRole::user, u"**Hi**"_s), reply});
        QAccessibleInterface *list = QAccessible::queryAccessibleInterface(m_view->area());
        QCOMPARE(list->childCount(), 2);
        QAccessibleInterface *user = list->child(0);
        QCOMPARE(user->text(QAccessible::Name), u"You"_s);
        QCOMPARE(user->text(QAccessible::Description), u"Hi"_s);

        QAccessibleInterface *item = list->child(1);
        QVERIFY(m_view->area()->bubbleAt(1));
        QCOMPARE(item->role(), QAccessible::ListItem);
        QCOMPARE(item->text(QAccessible::Name), u"Assistant · 12↑ 34↓ · 46 tokens"_s);
        const QString shown = u"Plan\nShow me everything in the docs.\n• first\n3. third\nquoted\n"
                              "Code, python\nprint(\"hi\")\nx = 1\nName\tSize\na\t1\nb\t"_s;
        QCOMPARE(item->text(QAccessible::Description), shown);
        QVERIFY(item->textInterface());
        QCOMPARE(item->textInterface()->text(0, -1), shown);
        int start = -1;
        int end = -1;
        QCOMPARE(item->textInterface()->textAtOffset(8, QAccessible::LineBoundary, &start, &end),
                 u"Show me everything in the docs.\n"_s);
        QCOMPARE(item->textInterface()->textAfterOffset(8, QAccessible::LineBoundary, &start, &end),
                 QString(QChar(0x2022)) + u" first\n"_s);

        QList<Node> nodes;
        collect(item, nodes);
        if (QTest::currentTestFailed())
            return;
        QStringList outline;
        for (const Node &node : nodes) {
            const QString description = node.role == QAccessible::Button ? QString() : node.description; // its tooltip
            outline.append(QLatin1StringView(QMetaEnum::fromType<QAccessible::Role>().valueToKey(node.role)) + u' ' +
                           node.name + (description.isEmpty() ? QString() : u" (" + description + u')'));
        }
        const QStringList expected =
            u"Button Copy Markdown|Heading Plan|Paragraph Show me everything in the docs.|"
            "Link the docs (https://example.com/docs)|ListItem \u2022 first|ListItem 3. third|Paragraph quoted (Quote)|"
            "Section Code, python|StaticText print(\"hi\")|StaticText x = 1|Button Copy code|Table |ColumnHeader Name|"
            "ColumnHeader Size|Cell a|Cell 1|Cell b|Cell |Button Copy Markdown|Button Regenerate"_s.split(u'|');
        QCOMPARE(outline, expected);
        // What a block's text reads is the shown text too.
        for (const Node &node : nodes) {
            for (const QString &markup : {u"**"_s, u"```"_s, u"|"_s, u"https://"_s, u"hidden"_s})
                QVERIFY2(!node.text.contains(markup), qPrintable(node.text));
        }

        // The table is a grid a reader moves through by cell, each cell knowing its header.
        QAccessibleInterface *table = item->child(7); // after the copy button and six blocks
        QCOMPARE(table->role(), QAccessible::Table);
        QAccessibleTableInterface *grid = table->tableInterface();
        QVERIFY(grid);
        QCOMPARE(grid->rowCount(), 2);
        QCOMPARE(grid->columnCount(), 2);
        QCOMPARE(grid->columnDescription(1), u"Size"_s);
        QVERIFY(!grid->cellAt(2, 0));
        QVERIFY(!grid->cellAt(0, 2));
        const QStringList cells{u"a"_s, u"1"_s, u"b"_s, QString()};
        for (int r = 0; r < 2; ++r) {
            for (int c = 0; c < 2; ++c) {
                QAccessibleTableCellInterface *position = grid->cellAt(r, c)->tableCellInterface();
                QCOMPARE(grid->cellAt(r, c)->text(QAccessible::Name), cells.at(r * 2 + c));
                QCOMPARE(position->rowIndex(), r);
                QCOMPARE(position->columnIndex(), c);
                QCOMPARE(position->table(), table);
                const QList<QAccessibleInterface *> headers = position->columnHeaderCells();
                QCOMPARE(headers.size(), 1);
                QCOMPARE(headers.first()->text(QAccessible::Name), c ? u"Size"_s : u"Name"_s);
            }
        }
    }

    // Every message is an item, built or not, reading as shown; "Copy Markdown" is one action away on
    // each and copies the source. A long conversation opens at its end with only the bubbles near it
    // built. A huge reply is read only as far as anyone listens, without a bubble built for it.
    // F6 rings the panes and lands on the newest message; Up and Down walk the messages, each
    // scrolled into view as a user's scroll would (the top builds the first ones and lets the far
    // ones go), so walking up detaches the transcript and coming back to the end follows again;
    // Escape returns to the composer, and F6 back to the message last visited.
    void everyMessageIsAnItem_walkedByKeys()
    {
        QList<ChatMessage> messages;
        for (int i = 0; i < 300; ++i)
            messages.append(
                ChatMessage(i % 2 ? ChatRole::assistant : ChatRole::user, u"Reply **%1**\n\n- item"_s.arg(i)));
        QString huge;
        for (int i = 0; i < 100'000; ++i)
            huge += u"Line **%1** of a very long reply.\n"_s.arg(i);
        messages[150].content = huge;
        show(messages);
        QAccessibleInterface *list = QAccessible::queryAccessibleInterface(m_view->area());
        QCOMPARE(list->role(), QAccessible::List);
        QCOMPARE(list->childCount(), 300);
        QVERIFY(!m_view->area()->bubbleAt(0));
        QVERIFY(m_view->area()->bubbleAt(299));
        for (int i : {0, 299}) {
            QAccessibleInterface *item = list->child(i);
            QCOMPARE(item->role(), QAccessible::ListItem);
            QCOMPARE(list->indexOfChild(item), i);
            QCOMPARE(item->text(QAccessible::Name), i % 2 ? u"Assistant"_s : u"You"_s);
            QCOMPARE(item->text(QAccessible::Description), u"Reply %1\n\u2022 item"_s.arg(i));
            QAccessibleActionInterface *a = actions(item, u"Copy Markdown"_s);
            QVERIFY(a);
            QGuiApplication::clipboard()->clear();
            a->doAction(u"Copy Markdown"_s);
            QCOMPARE(QGuiApplication::clipboard()->text(), u"Reply **%1**\n\n- item"_s.arg(i));
        }
        QAccessibleInterface *bounded = list->child(150);
        QVERIFY(bounded->text(QAccessible::Description).size() <= 4001);
        QVERIFY(bounded->textInterface()->characterCount() <= 100'001);
        QVERIFY(bounded->textInterface()->text(0, 40).startsWith(u"Line 0 of a very long reply."_s));
        TranscriptArea *area = m_view->area();
        QVERIFY(area->builtBubbleCount() < 40);

        QTest::keyClick(m_composer, Qt::Key_F6);
        QVERIFY(m_list->hasFocus());
        QTest::keyClick(m_list, Qt::Key_F6);
        QTRY_VERIFY(area->bubbleAt(299) && area->bubbleAt(299)->hasFocus());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Up);
        QVERIFY(area->bubbleAt(298)->hasFocus());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Home);
        QVERIFY(area->bubbleAt(0));
        QVERIFY(area->bubbleAt(0)->hasFocus());
        QVERIFY(area->viewport()->rect().contains(area->bubbleAt(0)->geometry().topLeft()));
        QVERIFY(!area->bubbleAt(299));
        QVERIFY(area->builtBubbleCount() < 40);
        QTRY_VERIFY(!m_scroll->autoScroll());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Down);
        QVERIFY(area->bubbleAt(1)->hasFocus());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_End);
        QVERIFY(area->bubbleAt(299)->hasFocus());
        QTRY_VERIFY(m_scroll->autoScroll());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Up);
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Escape);
        QVERIFY(m_composer->hasFocus());
        QTest::keyClick(m_composer, Qt::Key_F6, Qt::ShiftModifier);
        QTRY_VERIFY(area->bubbleAt(298)->hasFocus());
    }

    // A reply streaming into its bubble sends a screen reader no notices of its own on each
    // update: the bubble and its code read as they are when the reader asks.
    void streamingNotifiesNothing_thenTabWalksTheButtons()
    {
        QPlatformAccessibility *readers = QGuiApplicationPrivate::platformIntegration()->accessibility();
        if (!readers)
            QSKIP("this platform has no accessibility");
        ChatMessage reply(ChatRole::assistant, u"Code:\n```js\nlet a"_s);
        show({ChatMessage(ChatRole::user, u"Hi"_s), reply});
        MessageBubble *bubble = m_view->area()->bubbleAt(1);
        QVERIFY(bubble);
        static QList<QAccessible::Event> told;
        told.clear();
        readers->setActive(true);
        const QAccessible::UpdateHandler previous = QAccessible::installUpdateHandler([](QAccessibleEvent *event) {
            if (qobject_cast<MessageBubble *>(event->object()) || qobject_cast<CodeTextView *>(event->object()))
                told.append(event->type());
        });
        for (const QString &more : {u" = 1;\n"_s, u"/* b */ let c"_s, u" = 'd';"_s}) {
            reply.content += more;
            bubble->setMessage(reply);
        }
        QAccessible::installUpdateHandler(previous);
        readers->setActive(false);
        QCOMPARE(told, QList<QAccessible::Event>());
        const auto *code = bubble->findChild<CodeTextView *>();
        QVERIFY(code);
        QCOMPARE(QAccessible::queryAccessibleInterface(const_cast<CodeTextView *>(code))->text(QAccessible::Name),
                 u"let a = 1;\n/* b */ let c = 'd';"_s);
        QVERIFY(
            QAccessible::queryAccessibleInterface(bubble)->text(QAccessible::Description).endsWith(u"let c = 'd';"_s));

        // Tab reaches the focused message's buttons in reading order, then leaves the transcript;
        // Shift+Tab walks back. Ctrl+Shift+C copies the last reply from anywhere in the window.
        QTest::keyClick(m_composer, Qt::Key_F6, Qt::ShiftModifier);
        QTRY_VERIFY(bubble->hasFocus());
        const QList<QWidget *> expected{bubble->headerCopyButton(), bubble->findChild<CodeBlockView *>()->copyButton(),
                                        bubble->footerCopyButton(), bubble->regenerateButton(), m_composer};
        for (QWidget *w : expected) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            QCOMPARE(QApplication::focusWidget(), w);
        }
        QTest::keyClick(m_composer, Qt::Key_Tab, Qt::ShiftModifier);
        QTRY_COMPARE(QApplication::focusWidget(), bubble);
        QGuiApplication::clipboard()->clear();
        QTest::keyClick(m_composer, Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), reply.content);
        QVERIFY(bubble->copied());
    }

private:
    void show(const QList<ChatMessage> &messages) { m_chat->activate(UiTest::conversationOf(messages)); }

    std::unique_ptr<ChatViewModel> m_chat;
    std::unique_ptr<ScrollController> m_scroll;
    std::unique_ptr<QWidget> m_window;
    QLineEdit *m_list = nullptr;
    TranscriptView *m_view = nullptr;
    QLineEdit *m_composer = nullptr;
};

QTEST_MAIN(tst_TranscriptAccessible)
#include "tst_transcriptaccessible.moc"
