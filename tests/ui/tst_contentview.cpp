#include "model/versions.h"
#include "ui/chatheader.h"
#include "ui/composereditor.h"
#include "ui/composerfield.h"
#include "ui/conversationdelegate.h"
#include "ui/conversationlistmodel.h"
#include "ui/conversationsidebar.h"
#include "ui/deletedchatbar.h"
#include "ui/messagebubble.h"
#include "ui/systempromptdialog.h"
#include "uitestsupport.h"

#include <QAbstractItemView>
#include <QAccessible>
#include <QApplication>
#include <QComboBox>
#include <QContextMenuEvent>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>
#include <QPlainTextEdit>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QToolButton>

#include <memory>
#include <private/qguiapplication_p.h>

using namespace Qt::StringLiterals;
using UiTest::child;
using UiTest::shownChildren;

namespace {

// What a screen reader is told has the focus: an object and, for an item of a list, its row.
struct Told
{
    QObject *object;
    int child;
};
QList<Told> toldFocus;

void listenForFocus(QAccessibleEvent *event)
{
    if (event->type() == QAccessible::Focus)
        toldFocus.append({event->object(), event->child()});
}

ChatMessage reply(std::optional<qint64> prompt, std::optional<qint64> completion, std::optional<qint64> total)
{
    return ChatMessage(ChatRole::assistant, u"ok"_s, TokenUsage{prompt, completion, total});
}

QStringList menuTexts(const QMenu *menu)
{
    QStringList texts;
    for (const QAction *action : menu->actions())
        texts.append(action->text() + (action->icon().isNull() ? u""_s : u" +icon"_s));
    return texts;
}

} // namespace

class tst_ContentView final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_profile = std::make_unique<StorageTest::Profile>(); }
    void init()
    {
        static int run = 0;
        m_w = std::make_unique<UiTest::ChatWindows>(m_profile->root() + u"/c%1.json"_s.arg(++run));
        QVERIFY(m_w->mock.listen());
    }
    void cleanup() { m_w.reset(); }

    void emptyState_untilAProviderExists()
    {
        ContentView *view = m_w->makeView();
        auto *stack = qobject_cast<QStackedWidget *>(child<QWidget>(view, "emptyState")->parentWidget());
        QVERIFY(stack);
        QCOMPARE(stack->currentWidget()->objectName(), u"emptyState"_s);

        // The chat area is made only now, and must show what the window already holds.
        QVERIFY(!view->findChild<QWidget *>(u"chatArea"_s));
        Conversation held = m_w->chats.newChat(std::nullopt);
        m_w->chats.updateMessages(held.id, {ChatMessage(ChatRole::user, u"kept"_s)});
        view->chat()->setInput(u"draft"_s);
        m_w->addProvider(u"Mock"_s);
        QCOMPARE(stack->currentWidget()->objectName(), u"chatArea"_s);
        QCOMPARE(child<QPlainTextEdit>(view, "composer")->toPlainText(), u"draft"_s);
        QVERIFY(child<QToolButton>(view, "exportButton")->isEnabled());
        QVERIFY(!child<QLabel>(view, "tokenTotal")->isVisible()); // no usage yet

        m_w->store.setProviders({});
        QCOMPARE(stack->currentWidget()->objectName(), u"emptyState"_s);
    }
    void providerPicker_listsEveryProviderAndPicks_data()
    {
        QTest::addColumn<int>("count");
        QTest::newRow("a few") << 3;
        QTest::newRow("a long list") << 250; // no longer measured name by name
    }
    void providerPicker_listsEveryProviderAndPicks()
    {
        QFETCH(int, count);
        QList<Provider> providers;
        for (int i = 0; i < count; ++i) {
            Provider p = Provider::presets().first();
            p.id = QUuid::createUuid();
            p.name = u"Provider %1"_s.arg(i);
            providers.append(p);
        }
        m_w->store.merge(providers);
        m_w->store.setSelectedID(providers.at(count - 2).id);
        ContentView *view = m_w->makeView();
        auto *picker = child<QComboBox>(view, "providerPicker");
        QCOMPARE(picker->count(), count);
        QCOMPARE(picker->itemText(count - 1), providers.last().name);
        QCOMPARE(picker->currentIndex(), count - 2);
        QVERIFY(picker->width() <= 200);

        picker->setFocus();
        QTest::keyClick(picker, Qt::Key_Down);
        QCOMPARE(m_w->store.selectedID(), providers.last().id);

        Provider renamed = providers.first();
        renamed.name = u"Renamed"_s;
        m_w->store.update(renamed);
        QCOMPARE(picker->itemText(0), u"Renamed"_s);
        QCOMPARE(picker->count(), count);
        QCOMPARE(picker->currentIndex(), count - 1);
    }
    void modelMenu_data()
    {
        using Served = std::optional<MockProviderOptions>; // a fetch is made first when present
        QTest::addColumn<bool>("withProvider");
        QTest::addColumn<QStringList>("cached");
        QTest::addColumn<QString>("model");
        QTest::addColumn<Served>("served");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QStringList>("menu");

        const QString none = u"No models loaded — tap the refresh button"_s;
        QTest::newRow("no provider") << false << QStringList() << u""_s << Served() << u"Choose model"_s
                                     << QStringList{none};
        QTest::newRow("cached, current checked") << true << QStringList{u"a"_s, u"b&c"_s} << u"b&c"_s << Served()
                                                 << u"b&c"_s << QStringList{u"a"_s, u"b&&c +icon"_s};
        QTest::newRow("fetched list replaces cached")
            << true << QStringList{u"old"_s} << u"mock-large"_s
            << Served(MockProviderOptions{.models = {u"mock-large"_s, u"mock-small"_s}}) << u"mock-large"_s
            << QStringList{u"mock-large +icon"_s, u"mock-small"_s};
        QTest::newRow("fetched empty list wins over cached")
            << true << QStringList{u"old"_s} << u"old"_s << Served(MockProviderOptions{.models = {}}) << u"old"_s
            << QStringList{none};
        QTest::newRow("failed fetch: error shown, list kept")
            << true << QStringList{u"kept"_s} << u"kept"_s
            << Served(MockProviderOptions{.failStatus = 500, .failBody = "overloaded"}) << u"kept"_s
            << QStringList{u"kept +icon"_s};
    }
    void modelMenu()
    {
        QFETCH(bool, withProvider);
        QFETCH(QStringList, cached);
        QFETCH(QString, model);
        QFETCH(std::optional<MockProviderOptions>, served);
        QFETCH(QString, label);
        QFETCH(QStringList, menu);

        std::optional<Provider> provider;
        if (withProvider)
            provider = m_w->addProvider(u"Mock"_s, cached, model);
        else
            m_w->store.setProviders({Provider{QUuid::createUuid(), u"Unselected"_s, {}, {}, {}, {}, {}}});
        ContentView *view = m_w->makeView();
        ContentView *other = m_w->makeView();
        auto *button = child<QToolButton>(view, "modelMenuButton");
        auto *fetch = child<QToolButton>(view, "fetchModelsButton");
        QCOMPARE(button->isEnabled(), withProvider);
        QCOMPARE(fetch->isEnabled(), withProvider);

        if (served) {
            m_w->mock.setOptions(*served);
            fetch->click();
            QVERIFY(view->header()->isFetchingModels());
            QVERIFY(child<QWidget>(view, "fetchProgress")->isVisible());
            QVERIFY(!fetch->isEnabled());
            QTRY_VERIFY(!view->header()->isFetchingModels());
            QVERIFY(fetch->isEnabled());
            const bool failed = served->failStatus != 0;
            QCOMPARE(m_w->store.selected()->cachedModels, failed ? cached : served->models);
            if (failed)
                QVERIFY(view->chat()->errorText().value_or(QString()).contains(u"500"_s));
            else
                QCOMPARE(view->chat()->errorText(), std::nullopt);
        }
        QCOMPARE(child<QLabel>(view, "modelLabel")->text(), label);
        if (withProvider) {
            button->click();
            QCOMPARE(shownChildren<QMenu>(view, "modelMenu").size(), 1);
            QCOMPARE(menuTexts(shownChildren<QMenu>(view, "modelMenu").first()), menu);
            shownChildren<QMenu>(view, "modelMenu").first()->close();
        } else {
            QCOMPARE(view->header()->modelList(), QStringList());
        }

        // A choice is stored in the provider, so every window shows it.
        if (withProvider && !view->header()->modelList().isEmpty()) {
            view->header()->selectModel(view->header()->modelList().first());
            QCOMPARE(m_w->store.selected()->model, view->header()->modelList().first());
            QCOMPARE(child<QLabel>(other, "modelLabel")->text(), view->header()->modelList().first());
        }
    }
    void turn_createsConversationStreamsExportsStopsAndAsksAboutLongOnes()
    {
        m_w->addProvider(u"First"_s, {}, u"first-model"_s);
        ContentView *view = m_w->makeView();
        ChatViewModel *chat = view->chat();
        QVERIFY(!m_w->chats.selectedID());
        // Blank text is not sent: the button is off, and Return keeps the text.
        const QString blank = u" \n\t\n "_s;
        typeAndReturn(view, blank);
        QVERIFY(!child<QToolButton>(view, "sendButton")->isEnabled());
        QCOMPARE(child<QPlainTextEdit>(view, "composer")->toPlainText(), blank);
        QVERIFY(view->chat()->messages().isEmpty());

        typeAndReturn(view, u"Hello there"_s);
        QCOMPARE(m_w->chats.conversations().size(), 1);
        QCOMPARE(m_w->chats.selectedID(), m_w->chats.conversations().first().id);
        QVERIFY(chat->isStreaming());
        QVERIFY(child<QToolButton>(view, "stopButton")->isVisible());
        QVERIFY(!child<QToolButton>(view, "sendButton")->isVisible());
        QCOMPARE(child<QPlainTextEdit>(view, "composer")->toPlainText(), QString());

        QTRY_VERIFY(!chat->isStreaming());
        QCOMPARE(chat->messages().last().content, m_w->mock.options().reply);
        QVERIFY(child<QToolButton>(view, "exportButton")->isEnabled());

        // Mid-reply, under another provider: the export is the transcript as shown, named for the
        // selected provider, while the record does not hold the reply yet.
        StorageTest::ScriptedDialogs dialogs;
        view->header()->setFileDialogs(&dialogs);
        const Provider second = m_w->addProvider(u"Second"_s, {}, u"second-model"_s);
        m_w->store.setSelectedID(second.id);
        // Long and slow enough to be caught part-way.
        m_w->mock.setOptions({.reply = u"Partial"_s + u"word "_s.repeated(100), .tokensPerSecond = 50});
        typeAndReturn(view, u"Question"_s);
        QTRY_VERIFY(chat->messages().size() == 4 && chat->messages().last().content.startsWith(u"Partial"_s));
        QCOMPARE(m_w->chats.conversations().first().messages.size(), 3);
        dialogs.answer = m_profile->root() + u"/out.md"_s;
        view->header()->exportCurrent();
        QCOMPARE(dialogs.saves.size(), 1);
        const QString text = QString::fromUtf8(StorageTest::readAll(*dialogs.answer));
        for (const QString &part : {u"Question"_s, u"Partial"_s, u"Second"_s, u"second-model"_s})
            QVERIFY(text.contains(part));
        QVERIFY(!text.contains(u"First"_s));
        QCOMPARE(chat->errorText(), std::nullopt);
        dialogs.answer = m_profile->root() + u"/missing/folder/out.md"_s;
        view->header()->exportCurrent();
        QVERIFY(chat->errorText().value_or(QString()).startsWith(u"Export failed: "_s));

        child<QToolButton>(view, "stopButton")->click();
        QVERIFY(!chat->isStreaming());
        QVERIFY(child<QToolButton>(view, "sendButton")->isVisible());

        // Over a million bytes, counted in UTF-8 and not in characters, the send is asked about;
        // declined, nothing is sent and the text is kept.
        m_w->mock.setOptions({});
        QList<qint64> asked;
        bool answer = false;
        view->setLargeSendQuestion([&](qint64 bytes) {
            asked.append(bytes);
            return answer;
        });
        const QString small = u"é\n"_s.repeated(333'332); // 999,996 bytes: under the limit
        const QString large = u"é\n"_s.repeated(333'334);
        const qsizetype had = chat->messages().size();
        typeAndReturn(view, large);
        QCOMPARE(asked, QList<qint64>{1'000'002});
        QCOMPARE(chat->messages().size(), had);
        QCOMPARE(chat->input(), large);
        answer = true;
        QTest::keyClick(child<QPlainTextEdit>(view, "composer"), Qt::Key_Return);
        QCOMPARE(asked.size(), 2);
        QCOMPARE(chat->messages().at(had).content, large.trimmed());
        QTRY_VERIFY(!chat->isStreaming());
        typeAndReturn(view, small);
        QCOMPARE(asked.size(), 2);
        QCOMPARE(chat->messages().size(), had + 4);
        QTRY_VERIFY(!chat->isStreaming());

        // Past a million characters the field hands its text over when typing pauses; a send at
        // once still takes the last key.
        answer = false;
        auto *editor = child<QPlainTextEdit>(view, "composer");
        editor->setPlainText(u"a\n"_s.repeated(500'000));
        editor->moveCursor(QTextCursor::End);
        QTest::keyClick(editor, Qt::Key_B);
        QTest::keyClick(editor, Qt::Key_Return);
        QCOMPARE(asked.last(), 1'000'001);
        QVERIFY(chat->input().endsWith(u"\nb"_s));
    }
    void composer_growsFromOneToSixLines_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("lines");
        QTest::newRow("three lines") << u"a\nb\nc"_s << 3;
        QTest::newRow("one long line wraps") << u"word "_s.repeated(12) << -1; // 2 or more, by the font
        QTest::newRow("more than six") << u"a\n"_s.repeated(10) << 6;
    }
    void composer_growsFromOneToSixLines()
    {
        QFETCH(QString, text);
        QFETCH(int, lines);
        ComposerField field;
        field.resize(300, field.height());
        field.show();
        const int oneLine = field.height();
        field.setText(text);
        if (lines < 0) {
            QVERIFY(field.visibleLines() >= 2 && field.visibleLines() < 6);
            lines = field.visibleLines();
        }
        QCOMPARE(field.visibleLines(), lines);
        QCOMPARE(field.height() - oneLine, (lines - 1) * field.editor()->fontMetrics().lineSpacing());
    }
    void tokenTotal_data()
    {
        QTest::addColumn<QList<ChatMessage>>("messages");
        QTest::addColumn<std::optional<qint64>>("total");
        constexpr qint64 max = std::numeric_limits<qint64>::max();
        QTest::newRow("a negative total counts; a sum below 1 is none")
            << QList{reply({}, {}, 5), reply({}, {}, -5)} << std::optional<qint64>();
        QTest::newRow("overflow saturates") << QList{reply({}, {}, max), reply(max, max, {})} << std::optional(max);
    }
    void tokenTotal()
    {
        QFETCH(QList<ChatMessage>, messages);
        QFETCH(std::optional<qint64>, total);
        QCOMPARE(ChatHeader::conversationTokenTotal(messages), total);
    }
    void rowMenu_renameDeleteAndSystemPrompt()
    {
        m_w->addProvider(u"Mock"_s);
        const Conversation older = m_w->chats.newChat(std::nullopt);
        const Conversation middle = m_w->chats.newChat(std::nullopt);
        const Conversation newer = m_w->chats.newChat(std::nullopt);
        m_w->chats.rename(older.id, u"Older"_s);
        m_w->chats.rename(newer.id, u"Newer"_s);
        ContentView *view = m_w->makeView();
        auto *list = child<QAbstractItemView>(view, "conversationList");
        QCOMPARE(list->model()->rowCount(), 3);
        QCOMPARE(list->model()->index(0, 0).data().toString(), u"Newer"_s);
        QCOMPARE(list->currentIndex().row(), 0);

        const auto runDialog = [&](const QString &text, const QString &button) {
            QVERIFY(chooseFromRowMenu(view, 2, u"Rename"_s));
            auto *dialog = child<QDialog>(view, "renameDialog");
            QVERIFY(dialog && dialog->isVisible());
            auto *field = child<QLineEdit>(view, "renameField");
            QCOMPARE(field->text(), u"Older"_s);
            field->setText(text);
            for (QAbstractButton *b : dialog->findChild<QDialogButtonBox *>()->buttons()) {
                if (b->text() == button)
                    b->click();
            }
            QTRY_VERIFY(!child<QDialog>(view, "renameDialog"));
        };
        runDialog(u"Ignored"_s, u"Cancel"_s);
        QCOMPARE(m_w->chats.conversations().at(2).title, u"Older"_s);
        runDialog(u"  Trip plans  "_s, u"Rename"_s);
        QCOMPARE(m_w->chats.conversations().at(2).title, u"Trip plans"_s);
        QCOMPARE(list->model()->index(2, 0).data().toString(), u"Trip plans"_s);
        QCOMPARE(m_w->chats.selectedID(), newer.id);

        // Deleting a row that is not selected keeps the selection, and so does its undo; the chat
        // comes back where it was.
        auto *bar = child<DeletedChatBar>(view, "deletedChatBar");
        QVERIFY(chooseFromRowMenu(view, 1, u"Delete"_s));
        QVERIFY(!m_w->chats.find(middle.id));
        QCOMPARE(m_w->chats.selectedID(), newer.id);
        QCOMPARE(list->currentIndex().row(), 0);
        QVERIFY(bar->isVisible());
        child<QAbstractButton>(view, "undoDelete")->click();
        QVERIFY(!bar->isVisible());
        QCOMPARE(m_w->chats.conversations().at(1).id, middle.id);
        QCOMPARE(m_w->chats.selectedID(), newer.id);

        // Deleting the selected row leaves the choice of the next selection to the store; the list
        // shows it. Its undo selects it again.
        QVERIFY(chooseFromRowMenu(view, 0, u"Delete"_s));
        QCOMPARE(m_w->chats.selectedID(), middle.id);
        QVERIFY(list->selectionModel()->isRowSelected(0));
        child<QAbstractButton>(view, "undoDelete")->click();
        QCOMPARE(m_w->chats.selectedID(), newer.id);
        // Once its time is up the offer is gone: nothing comes back.
        bar->setInterval(50);
        QVERIFY(chooseFromRowMenu(view, 1, u"Delete"_s));
        QTRY_VERIFY(!bar->isVisible());
        bar->undo();
        QCOMPARE(m_w->chats.conversations().size(), 2);

        // The system prompt set from the header is the shown conversation's; one set from another
        // row's menu goes to that conversation and leaves the transcript alone.
        child<QToolButton>(view, "systemPromptButton")->click();
        auto *dialog = view->findChild<SystemPromptDialog *>();
        QVERIFY(dialog);
        dialog->field()->setPlainText(u"Be brief."_s);
        dialog->accept();
        QCOMPARE(view->chat()->systemPrompt(), u"Be brief."_s);
        QVERIFY(chooseFromRowMenu(view, 1, u"System Prompt…"_s));
        QCOMPARE(shownChildren<SystemPromptDialog>(view).size(), 1);
        SystemPromptDialog *second = shownChildren<SystemPromptDialog>(view).first();
        second->field()->setPlainText(u"Other rules"_s);
        second->accept();
        QCOMPARE(m_w->chats.find(older.id)->messages.first().content, u"Other rules"_s);
        QCOMPARE(view->chat()->systemPrompt(), u"Be brief."_s);

        // A second delete takes the bar over: its undo brings back only the second chat.
        bar->setInterval(DeletedChatBar::shownMs);
        QVERIFY(chooseFromRowMenu(view, 1, u"Delete"_s));
        const QUuid kept = m_w->chats.conversations().first().id;
        QVERIFY(chooseFromRowMenu(view, 0, u"Delete"_s));
        child<QAbstractButton>(view, "undoDelete")->click();
        QCOMPARE(m_w->chats.conversations().size(), 1);
        QCOMPARE(m_w->chats.conversations().first().id, kept);
    }
    // The list's keys walk the conversations and keep the focus there, and Return hands it to the
    // composer, as does any other change of the selection. A reader hears the row the keyboard is on
    // first, before the transcript of the conversation it opens, and never hears of the list while
    // the user types in the composer. A search narrows the list; Escape shows it whole with the
    // selection and gives the focus back.
    void listKeysAndSearch_keepTheSelectionAndGiveTheFocusBack()
    {
        QPlatformAccessibility *readers = QGuiApplicationPrivate::platformIntegration()->accessibility();
        if (!readers)
            QSKIP("this platform has no accessibility");
        readers->setActive(true);
        const QAccessible::UpdateHandler previous = QAccessible::installUpdateHandler(listenForFocus);
        const auto restore = qScopeGuard([&] {
            QAccessible::installUpdateHandler(previous);
            readers->setActive(false);
        });
        m_w->addProvider(u"Mock"_s);
        // Older ones the search below finds enough of to fill the list and run past it.
        for (int i = 0; i < 60; ++i) {
            const Conversation c = m_w->chats.newChat(std::nullopt);
            m_w->chats.updateMessages(c.id,
                                      {ChatMessage(ChatRole::user, u"where is the café number %1"_s.arg(i)),
                                       ChatMessage(ChatRole::assistant, u"Round the corner, %1 doors down."_s.arg(i))});
            m_w->chats.rename(c.id, u"Coffee walk %1"_s.arg(i));
        }
        for (int i = 0; i < 4; ++i) {
            const Conversation made = m_w->chats.newChat(std::nullopt);
            const QString asked = (i % 2 ? u"Goodbye %1"_s : u"Hello %1"_s).arg(i);
            m_w->chats.updateMessages(made.id, {ChatMessage(ChatRole::user, asked), reply(1, 2, 3)});
        }
        ContentView *view = m_w->makeView();
        QApplication::setActiveWindow(view);
        auto *list = child<QAbstractItemView>(view, "conversationList");
        auto *composer = child<QPlainTextEdit>(view, "composer");
        const auto toldList = [list] {
            QList<int> rows;
            for (const Told &told : std::as_const(toldFocus)) {
                if (told.object == list)
                    rows.append(told.child);
            }
            return rows;
        };

        composer->setFocus();
        toldFocus.clear();
        m_w->chats.setSelectedID(m_w->chats.conversations().at(1).id);
        QTest::qWait(20); // the composer takes the focus again after the change
        QVERIFY(composer->hasFocus());
        QVERIFY2(toldList().isEmpty(), qPrintable(QString::number(toldList().size())));

        list->setFocus(Qt::TabFocusReason);
        QTRY_COMPARE(toldList(), (QList<int>{-1, 1}));
        for (int row = 2; row < 4; ++row) {
            toldFocus.clear();
            QTest::keyClick(list, Qt::Key_Down);
            QCOMPARE(m_w->chats.selectedID(), m_w->chats.conversations().at(row).id);
            QVERIFY(!toldFocus.isEmpty());
            QCOMPARE(toldFocus.first().object, list);
            QCOMPARE(toldFocus.first().child, row);
            QCOMPARE(toldList(), QList<int>{row});
            QTest::qWait(10); // the composer would take the focus now after any other change
            QVERIFY(list->hasFocus());
        }
        QTest::keyClick(list, Qt::Key_Return);
        QVERIFY(composer->hasFocus());
        QCOMPARE(m_w->chats.selectedID(), m_w->chats.conversations().at(3).id);

        list->setFocus();
        m_w->chats.setSelectedID(m_w->chats.conversations().at(2).id);
        QTRY_VERIFY(composer->hasFocus());

        // What matches, in which order and with what context, is the history search's own business.
        auto *field = child<QLineEdit>(view, "searchField");
        QTest::keyClick(composer, Qt::Key_F, Qt::ControlModifier | Qt::ShiftModifier);
        QVERIFY(field->hasFocus());
        QTest::keyClicks(field, u"HELLO"_s);
        QTRY_VERIFY(view->sidebar()->isSearchComplete());
        QCOMPARE(list->model()->rowCount(), 2);
        QCOMPARE(view->sidebar()->searchStatus(), u"2 conversations match"_s);
        QCOMPARE(field->accessibleDescription(), u"2 conversations match"_s);
        QVERIFY(list->selectionModel()->selectedRows().isEmpty()); // the selected chat is not a result
        QTest::keyClicks(field, u"x"_s);
        QTRY_VERIFY(view->sidebar()->isSearchComplete());
        QCOMPARE(list->model()->rowCount(), 0);
        QCOMPARE(view->sidebar()->searchStatus(), u"No conversations match"_s);

        // Results in sight are shaped before they show, also when found in more than one batch.
        const auto *delegate = static_cast<const ConversationDelegate *>(list->itemDelegate());
        qsizetype shapedWhenShown = -1;
        QObject hook;
        const auto shown = [&] { shapedWhenShown = delegate->linesShaped(); };
        connect(list->model(), &QAbstractItemModel::modelReset, &hook, shown);
        connect(list->model(), &QAbstractItemModel::rowsInserted, &hook, shown);
        field->setText(u"cafe"_s);
        QTRY_VERIFY(view->sidebar()->isSearchComplete());
        QCOMPARE(list->model()->rowCount(), 60);
        QVERIFY(list->viewport()->height() > 4 * ConversationDelegate::rowHeight(true));
        list->viewport()->repaint();
        QCOMPARE(delegate->linesShaped(), shapedWhenShown);

        QTest::keyClick(field, Qt::Key_Escape);
        QCOMPARE(field->text(), QString());
        QCOMPARE(list->model()->rowCount(), 64);
        QCOMPARE(list->currentIndex().row(), 2);
        QVERIFY(!view->sidebar()->isSearching());
        QVERIFY(composer->hasFocus());
    }
    // The last reply's Regenerate (and Ctrl+Shift+R) streams another version with the provider
    // selected now; the switcher goes back, taking the header's total with it; Edit in place resends
    // with the turns after it kept behind "‹ 1 / 2 ›". A second window on the conversation, not
    // streaming, reloads it from the store with every new version.
    void versions_regenerateSwitchAndResend()
    {
        m_w->addProvider(u"Mock"_s);
        ContentView *view = m_w->makeView();
        ContentView *other = m_w->makeView();
        typeAndReturn(view, u"Hello"_s);
        QTRY_VERIFY(!view->chat()->isStreaming());
        auto *area = view->findChild<TranscriptArea *>();
        QTRY_VERIFY(area->bubbleAt(1) && !area->bubbleAt(1)->regenerateButton()->isHidden());
        const QString firstTotal = child<QLabel>(view, "tokenTotal")->text();
        QCOMPARE(firstTotal, u"%1 tokens"_s.arg(ChatHeader::conversationTokenTotal(view->chat()->messages()).value()));

        const MockProviderOptions options{.reply =
                                              u"A second, **longer** answer to the same question, with more words."_s};
        m_w->mock.setOptions(options);
        const Provider second = m_w->addProvider(u"Second"_s, {}, u"mock-large"_s);
        m_w->store.setSelectedID(second.id);
        area->bubbleAt(1)->regenerateButton()->click();
        QTRY_COMPARE(m_w->mock.server().requests().size(), 2);
        QTRY_VERIFY(!view->chat()->isStreaming());
        QVERIFY(m_w->mock.server().requests().at(1).body.contains("mock-large"));
        QTRY_VERIFY(area->bubbleAt(1));
        QCOMPARE(area->bubbleAt(1)->versionLabel()->text(), u"2 / 2"_s);
        QTRY_COMPARE(other->chat()->messages(), view->chat()->messages());
        QVERIFY(child<QLabel>(view, "tokenTotal")->text() != firstTotal);

        area->bubbleAt(1)->previousVersionButton()->click();
        QTRY_COMPARE(area->bubbleAt(1)->versionLabel()->text(), u"1 / 2"_s);
        QCOMPARE(child<QLabel>(view, "tokenTotal")->text(), firstTotal);

        QApplication::setActiveWindow(view);
        auto *composer = child<QPlainTextEdit>(view, "composer");
        composer->setFocus();
        QTest::keyClick(composer, Qt::Key_R, Qt::ControlModifier | Qt::ShiftModifier);
        QTRY_VERIFY(!view->chat()->isStreaming());
        QCOMPARE(view->chat()->messages().last().content, options.reply);
        QCOMPARE(MessageVersioning::versionCount(view->chat()->messages().last()), 3);

        MessageBubble *question = area->bubbleAt(0);
        question->editButton()->click();
        question->editor()->setPlainText(u"Hello again"_s);
        QTest::keyClick(question->editor(), Qt::Key_Return);
        QTRY_COMPARE(m_w->mock.server().requests().size(), 4);
        QTRY_VERIFY(!view->chat()->isStreaming());
        QCOMPARE(view->chat()->messages().first().content, u"Hello again"_s);
        QTRY_VERIFY(area->bubbleAt(0));
        QCOMPARE(area->bubbleAt(0)->versionLabel()->text(), u"2 / 2"_s);

        // Another window's turn saved while this window's reply streams does not reload this window:
        // that would end the reply half-way.
        const QString slow = u"A reply long enough to be streaming still when the other window's turn is saved."_s;
        m_w->mock.setOptions({.reply = slow, .tokensPerSecond = 40});
        const qsizetype asked = view->chat()->messages().size();
        typeAndReturn(view, u"Slow"_s);
        QTRY_VERIFY(view->chat()->isStreaming() && !view->chat()->messages().last().content.isEmpty());
        m_w->mock.setOptions({.reply = u"Quick"_s});
        typeAndReturn(other, u"Other"_s);
        QTRY_VERIFY(!other->chat()->isStreaming());
        QTRY_VERIFY_WITH_TIMEOUT(!view->chat()->isStreaming(), 20000);
        QCOMPARE(view->chat()->messages().at(asked + 1).content, slow);
        QVERIFY(!view->chat()->errorText());
    }

private:
    void typeAndReturn(ContentView *view, const QString &text)
    {
        auto *editor = child<QPlainTextEdit>(view, "composer");
        editor->setPlainText(text);
        QTest::keyClick(editor, Qt::Key_Return);
    }
    // As the mouse does it: the press, then the menu event, neither of which may choose the row;
    // then the menu's item of that text. False when there is no menu or item, or the row was chosen.
    bool chooseFromRowMenu(ContentView *view, int row, const QString &item)
    {
        auto *list = child<QAbstractItemView>(view, "conversationList");
        const std::optional<QUuid> before = m_w->chats.selectedID();
        const QPoint at = list->visualRect(list->model()->index(row, 0)).center();
        QTest::mousePress(list->viewport(), Qt::RightButton, {}, at);
        QContextMenuEvent event(QContextMenuEvent::Mouse, at, list->viewport()->mapToGlobal(at));
        QApplication::sendEvent(list->viewport(), &event);
        QTest::mouseRelease(list->viewport(), Qt::RightButton, {}, at);
        const QList<QMenu *> menus = shownChildren<QMenu>(view, "conversationMenu");
        if (m_w->chats.selectedID() != before || menus.size() != 1)
            return false;
        for (QAction *action : menus.first()->actions()) {
            if (action->text() == item) {
                action->trigger();
                menus.first()->close();
                return true;
            }
        }
        return false;
    }
    std::unique_ptr<StorageTest::Profile> m_profile;
    std::unique_ptr<UiTest::ChatWindows> m_w;
};

QTEST_MAIN(tst_ContentView)
#include "tst_contentview.moc"
