#include "model/versions.h"
#include "ui/codeblockview.h"
#include "ui/copyfeedback.h"
#include "ui/markdowntextview.h"
#include "ui/messagebubble.h"
#include "uitestsupport.h"

#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QPlainTextEdit>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

using namespace Qt::StringLiterals;

using Usage = std::optional<TokenUsage>;

Q_DECLARE_METATYPE(Usage)
Q_DECLARE_METATYPE(ChatRole)

class tst_MessageBubble : public QObject
{
    Q_OBJECT

private slots:
    void init() { CopyFeedback::setResetDelayMs(-1); }
    void usage_data()
    {
        QTest::addColumn<Usage>("usage");
        QTest::addColumn<QString>("part");
        const std::optional<qint64> none;
        QTest::newRow("no usage") << Usage() << QString();
        QTest::newRow("prompt only") << Usage(TokenUsage{5, none, none}) << u"· 5 tokens"_s;
        QTest::newRow("reported total wins") << Usage(TokenUsage{12, 34, 7}) << u"· 12↑ 34↓ · 7 tokens"_s;
    }
    // Usage arrives with a reply's last update, to the bubble that streamed it; an update that
    // changes nothing says so.
    void usage()
    {
        QFETCH(Usage, usage);
        QFETCH(QString, part);
        ChatMessage message(ChatRole::assistant, u"x"_s);
        MessageBubble bubble(message);
        message.usage = usage;
        QCOMPARE(bubble.setMessage(message), usage.has_value());
        QCOMPARE(bubble.usageLabel()->isHidden(), part.isEmpty());
        QCOMPARE(bubble.usageLabel()->text(), part);
        QVERIFY(!bubble.setMessage(message));
    }
    // Standing instructions show their first line until opened; the copy is always the whole text.
    void systemMessage_collapsedToFirstLine()
    {
        MessageBubble bubble(ChatMessage(ChatRole::system, u"Be brief.\nUse British English."_s));
        bubble.resize(600, bubble.heightForWidth(600));
        QSignalSpy grew(&bubble, &MessageBubble::heightChanged);
        const int collapsed = bubble.heightForWidth(600);
        QCOMPARE(bubble.markdownView()->text(), u"Be brief. …"_s);
        QVERIFY(!bubble.expandButton()->isHidden());
        QCOMPARE(bubble.expandButton()->accessibleName(), u"Show all"_s);
        bubble.expandButton()->click();
        QCOMPARE(bubble.markdownView()->text(), u"Be brief.\nUse British English."_s);
        QCOMPARE(bubble.expandButton()->accessibleName(), u"Show less"_s);
        QCOMPARE(grew.size(), 1);
        QVERIFY(bubble.heightForWidth(600) > collapsed);
        bubble.copy();
        QCOMPARE(QApplication::clipboard()->text(), u"Be brief.\nUse British English."_s);

        MessageBubble oneLine(ChatMessage(ChatRole::system, u"Be brief."_s));
        QVERIFY(oneLine.expandButton()->isHidden());
        MessageBubble user(ChatMessage(ChatRole::user, u"two\nlines"_s));
        QVERIFY(user.expandButton()->isHidden());
        QCOMPARE(user.markdownView()->text(), u"two\nlines"_s);
    }

    void editInPlace_data()
    {
        QTest::addColumn<QString>("typed");  // "⏎" Return, "⇧" Shift+Return, "⎋" Escape
        QTest::addColumn<QString>("resent"); // empty: nothing resent
        QTest::addColumn<bool>("stillEditing");
        QTest::newRow("Return resends") << u"more⏎"_s << u"ask more"_s << false;
        QTest::newRow("Shift+Return breaks the line") << u"⇧two⏎"_s << u"ask \ntwo"_s << false;
        QTest::newRow("Escape cancels") << u"more⎋"_s << QString() << false;
        QTest::newRow("a blank text is not resent") << u"!⏎"_s << QString() << true;
    }
    // The user's message opens in place with its text; the keys do what the composer's do, and the
    // bubble only asks its owner to resend.
    void editInPlace()
    {
        QFETCH(QString, typed);
        QFETCH(QString, resent);
        QFETCH(bool, stillEditing);
        MessageBubble bubble(ChatMessage(ChatRole::user, u"ask "_s));
        bubble.resize(600, bubble.heightForWidth(600));
        bubble.show();
        QVERIFY(!bubble.editButton()->isHidden());
        const int shown = bubble.heightForWidth(600);
        QSignalSpy resends(&bubble, &MessageBubble::resendRequested);
        bubble.editButton()->click();
        QVERIFY(bubble.isEditing() && bubble.editor()->isVisible() && bubble.editButton()->isHidden());
        QCOMPARE(bubble.editor()->toPlainText(), u"ask "_s);
        for (const QChar c : typed) {
            if (c == u'⏎')
                QTest::keyClick(bubble.editor(), Qt::Key_Return);
            else if (c == u'⇧')
                QTest::keyClick(bubble.editor(), Qt::Key_Return, Qt::ShiftModifier);
            else if (c == u'⎋')
                QTest::keyClick(bubble.editor(), Qt::Key_Escape);
            else if (c == u'!')
                bubble.editor()->setPlainText(u" \n "_s);
            else
                QTest::keyClicks(bubble.editor(), QString(c));
        }
        QCOMPARE(bubble.isEditing(), stillEditing);
        QCOMPARE(resends.size(), resent.isEmpty() ? 0 : 1);
        if (!resent.isEmpty())
            QCOMPARE(resends.first().first().toString(), resent);
        if (!stillEditing) {
            // The message itself is untouched: its owner makes the new version.
            QCOMPARE(bubble.message().content, u"ask "_s);
            QCOMPARE(bubble.heightForWidth(600), shown);
        }
    }

    // "‹ 2 / 2 ›" reads "Version 2 of 2" to a screen reader and stops at either end; Edit is the
    // user's, Regenerate only where offered, none while streaming.
    void replyControls()
    {
        const QString raw = u"**one** and `code`\n\n- item"_s;
        QList<ChatMessage> path{ChatMessage(ChatRole::user, u"q"_s), ChatMessage(ChatRole::assistant, raw)};
        path = MessageVersioning::addVersion(path, 1, ChatMessage(ChatRole::assistant, u"two"_s));
        MessageBubble reply(path.at(1));
        QVERIFY(!reply.versionSwitcher()->isHidden());
        QCOMPARE(reply.versionLabel()->text(), u"2 / 2"_s);
        QCOMPARE(reply.versionSwitcher()->accessibleName(), u"Version 2 of 2"_s);
        QCOMPARE(reply.previousVersionButton()->accessibleName(), u"Previous version"_s);
        QCOMPARE(reply.previousVersionButton()->accessibleDescription(), u"Version 2 of 2"_s);
        QVERIFY(reply.previousVersionButton()->isEnabled() && !reply.nextVersionButton()->isEnabled());
        reply.setMessage(MessageVersioning::showVersion(path, 1, 0).at(1));
        QCOMPARE(reply.versionSwitcher()->accessibleName(), u"Version 1 of 2"_s);
        QVERIFY(!reply.previousVersionButton()->isEnabled() && reply.nextVersionButton()->isEnabled());

        // One copied state for both copy buttons; the clipboard gets the raw Markdown; the state resets.
        CopyFeedback::setResetDelayMs(150);
        const qint64 idle = reply.headerCopyButton()->icon().cacheKey();
        QTest::mouseClick(reply.footerCopyButton(), Qt::LeftButton);
        QCOMPARE(QGuiApplication::clipboard()->text(), raw);
        QVERIFY(reply.copied());
        QCOMPARE(reply.footerLabel()->text(), u"Copied"_s);
        QVERIFY(reply.headerCopyButton()->icon().cacheKey() != idle);
        QCOMPARE(reply.headerCopyButton()->icon().cacheKey(), reply.footerCopyButton()->icon().cacheKey());
        QTRY_COMPARE(reply.footerLabel()->text(), u"Copy"_s);
        QVERIFY(!reply.copied());

        QVERIFY(reply.editButton()->isHidden() && reply.regenerateButton()->isHidden());
        reply.setRegenerateAvailable(true);
        QVERIFY(!reply.regenerateButton()->isHidden());
        QCOMPARE(reply.regenerateButton()->accessibleName(), u"Regenerate"_s);
        reply.setSteeringEnabled(false);
        QVERIFY(!reply.regenerateButton()->isEnabled() && !reply.nextVersionButton()->isEnabled());

        MessageBubble question(path.at(0));
        QVERIFY(question.versionSwitcher()->isHidden() && !question.editButton()->isHidden());
        question.setRegenerateAvailable(true);
        QVERIFY(question.regenerateButton()->isHidden());
    }

    void layoutByRole_data()
    {
        QTest::addColumn<ChatRole>("role");
        QTest::addColumn<QString>("content");
        QTest::addColumn<QString>("label");
        QTest::addColumn<bool>("right");

        QTest::newRow("user") << ChatRole::user << u"hi"_s << u"You"_s << true;
        QTest::newRow("assistant") << ChatRole::assistant << u"# Hello"_s << u"Assistant"_s << false;
        QTest::newRow("system") << ChatRole::system << u"be brief"_s << u"System"_s << false;
        QTest::newRow("empty reply") << ChatRole::assistant << QString() << u"Assistant"_s << false;
    }
    void layoutByRole()
    {
        QFETCH(ChatRole, role);
        QFETCH(QString, content);
        QFETCH(QString, label);
        QFETCH(bool, right);

        MessageBubble bubble(ChatMessage(role, content));
        bubble.resize(600, bubble.heightForWidth(600));
        bubble.show();
        QCOMPARE(bubble.roleLabelWidget()->text(), label);
        QCOMPARE(bubble.accessibleName(), label);

        const QRect content_ = bubble.contentRect();
        const int near = right ? 600 - content_.right() - 1 : content_.left();
        const int far = right ? content_.left() : 600 - content_.right() - 1;
        QCOMPARE(near, MessageBubble::sidePadding);
        QVERIFY(far >= MessageBubble::sidePadding + MessageBubble::oppositeGap);

        // The rounded background is tinted; the gap beside it is not.
        const QImage image = bubble.grab().toImage();
        const int y = content_.center().y();
        const int outside = right ? content_.left() - 10 : content_.right() + 10;
        QVERIFY(image.pixelColor(content_.center().x(), y) != image.pixelColor(outside, y));

        const bool empty = content.isEmpty();
        QCOMPARE(bubble.ellipsisLabel()->isVisible(), empty);
        QCOMPARE(bubble.markdownView()->isVisible(), !empty);
        QCOMPARE(bubble.headerCopyButton()->isVisible(), !empty);
        QCOMPARE(bubble.footerCopyButton()->isVisible(), !empty);
        QCOMPARE(bubble.footerLabel()->isVisible(), !empty);
    }
    // Text and code blocks paint what lies behind them themselves, the bubble's tint over the
    // solid colour behind the bubble and the code's rounded corners, to the pixel of what the
    // window shows without them; so a line that grows repaints its block alone.
    void blocksPaintWhatIsBehindThem_data()
    {
        QTest::addColumn<ChatRole>("role");
        QTest::addColumn<QColor>("behind");
        QTest::newRow("reply on light") << ChatRole::assistant << QColor(Qt::white);
        QTest::newRow("own message on dark") << ChatRole::user << QColor(30, 32, 36);
    }
    void blocksPaintWhatIsBehindThem()
    {
        QFETCH(ChatRole, role);
        QFETCH(QColor, behind);
        QWidget window;
        QPalette pal = window.palette();
        pal.setColor(QPalette::Base, behind);
        window.setPalette(pal);
        QWidget *area = new QWidget(&window);
        area->setBackgroundRole(QPalette::Base);
        area->setAutoFillBackground(true);
        ChatMessage message(role, u"A paragraph\n\n```\nint x = 1;\n```\n\n- an item"_s);
        auto *bubble = new MessageBubble(message, area);
        bubble->resize(500, bubble->heightForWidth(500));
        area->resize(bubble->size());
        window.resize(bubble->size());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        const QList<MarkdownBlockView *> views = bubble->markdownView()->blockViews();
        QCOMPARE(views.size(), 3);
        const auto *code = qobject_cast<CodeBlockView *>(views.at(1));
        QVERIFY(code);
        for (const QWidget *view : {static_cast<QWidget *>(views.at(0)), static_cast<QWidget *>(code->codeView()),
                                    static_cast<QWidget *>(views.at(2))})
            QVERIFY(view->testAttribute(Qt::WA_OpaquePaintEvent));
        const QImage opaque = window.grab().toImage();
        bubble->markdownView()->setBackdrop(QColor());
        QVERIFY(!code->codeView()->testAttribute(Qt::WA_OpaquePaintEvent));
        QCOMPARE(window.grab().toImage(), opaque);
        bubble->markdownView()->setBackdrop(bubble->bodyColor());

        int behindPaints = 0;
        int blockPaints = 0;
        const UiTest::PaintCounter areaPaints(area, &behindPaints), bubblePaints(bubble, &behindPaints),
            textPaints(bubble->markdownView(), &behindPaints), lastPaints(views.constLast(), &blockPaints);
        QTest::qWait(50);
        blockPaints = behindPaints = 0;
        message.content += u" grows"_s;
        QVERIFY(bubble->setMessage(message));
        QTRY_COMPARE(blockPaints, 1);
        QCOMPARE(behindPaints, 0);
    }
};

QTEST_MAIN(tst_MessageBubble)
#include "tst_messagebubble.moc"
