#include "model/versions.h"
#include "ui/codeblockview.h"
#include "ui/messagebubble.h"
#include "ui/theme.h"
#include "uitestsupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QScrollBar>
#include <QStyleOption>
#include <QWheelEvent>

using namespace Qt::StringLiterals;

namespace {

QString paragraph(int i)
{
    return QStringLiteral("Paragraph %1 of the reply, long enough to wrap over a few lines in a narrow window, "
                          "so the transcript grows by a good step with every update.\n\n")
        .arg(i);
}

} // namespace

// A window's transcript with its controller wired as the main window wires them, against a
// provider on loopback.
class tst_TranscriptView : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_t = std::make_unique<UiTest::StreamedTranscript>();
        QVERIFY(m_t->server.listen());
        m_view = &m_t->view;
        m_view->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_view));
    }
    void cleanup() { m_t.reset(); }
    // A message that outgrows the view is laid out at the width the scroll bar leaves from the
    // start: the bar comes a moment later, and a long message must not be laid out again for it.
    // An error shows in red below the messages.
    void tallMessage_laidOutOnce_errorBelowIt()
    {
        m_t->chat.activate(UiTest::conversationOf({ChatMessage(ChatRole::user, u"A line to read. "_s.repeated(2000))}));
        TranscriptArea *area = m_view->area();
        MessageBubble *bubble = area->bubbleAt(0);
        QVERIFY(bubble);
        const int width = bubble->width();
        QTRY_VERIFY(bar()->isVisible());
        QCOMPARE(bubble->width(), width);

        const int before = area->anchorBottom();
        m_t->chat.setInput(u"hi"_s);
        m_t->chat.send(std::nullopt);
        QLabel *error = area->errorLabel();
        QVERIFY(error->isVisible());
        QCOMPARE(error->text(), ChatViewModel::noProviderText());
        // Red in the role the label is really drawn with, whatever its background.
        QCOMPARE(error->palette().color(error->foregroundRole()), Theme::color(Theme::Color::Red, area->palette()));
        QVERIFY(area->anchorBottom() > before + error->height());
        QCOMPARE(error->x(), TranscriptArea::errorPadding);
    }
    // Flipping a prompt's versions back and forth shows each branch with the bubbles it had, kept
    // aside meanwhile, each showing its own message and version.
    void versionsFlippedBackAndForth_showTheirOwnBubbles()
    {
        QList<ChatMessage> messages;
        for (int i = 0; i < 8; ++i)
            messages.append(ChatMessage(i % 2 ? ChatRole::assistant : ChatRole::user, u"Message %1"_s.arg(i)));
        messages = MessageVersioning::addVersion(messages, 4, ChatMessage(ChatRole::user, u"Edited"_s));
        messages.append(ChatMessage(ChatRole::assistant, u"Reply to the edit"_s));
        m_t->chat.activate(UiTest::conversationOf(messages));
        TranscriptArea *area = m_view->area();
        MessageBubble *edited = area->bubbleAt(5);
        QVERIFY(edited);

        m_t->chat.showVersion(4, 0);
        QCOMPARE(area->messageCount(), 8);
        MessageBubble *original = area->bubbleAt(7);
        QVERIFY(original && original != edited);
        QCOMPARE(original->message().content, u"Message 7"_s);
        QCOMPARE(area->bubbleAt(4)->versionLabel()->text(), u"1 / 2"_s);

        m_t->chat.showVersion(4, 1);
        QCOMPARE(area->messageCount(), 6);
        QCOMPARE(area->bubbleAt(5), edited);
        QVERIFY(edited->isVisible());
        QCOMPARE(edited->message(), m_t->chat.messages().at(5));
        QCOMPARE(area->bubbleAt(4)->versionLabel()->text(), u"2 / 2"_s);

        m_t->chat.showVersion(4, 0);
        QCOMPARE(area->bubbleAt(7), original);
        QCOMPARE(original->message(), m_t->chat.messages().at(7));
        QCOMPARE(area->bubbleAt(4)->versionLabel()->text(), u"1 / 2"_s);
        // What waits aside is out of sight: only the rows' bubbles show.
        int shown = 0;
        for (const MessageBubble *bubble : area->viewport()->findChildren<MessageBubble *>(Qt::FindDirectChildrenOnly))
            shown += bubble->isVisible() ? 1 : 0;
        QCOMPARE(shown, area->builtBubbleCount());
    }
    void followsUntilTheUserScrollsAway()
    {
        QList<QByteArray> pieces;
        // Long enough to outlast the steps below on a busy machine, each update taller than the
        // distance from the end that still counts as near it.
        for (int i = 0; i < 300; ++i)
            pieces.append(UiTest::deltaEvent(paragraph(3 * i) + paragraph(3 * i + 1) + paragraph(3 * i + 2)));
        bool detached = false;
        connect(&m_t->scroll, &ScrollController::autoScrollChanged, this,
                [&] { detached = detached || !m_t->scroll.autoScroll(); });
        send(pieces, 30);

        // Following: the reply is kept in view while it grows past the window, each tall update
        // scrolled to before its own geometry is reported.
        QTRY_VERIFY_WITH_TIMEOUT(bar()->maximum() > 1000, 5000);
        QTRY_VERIFY(!m_t->scroll.contentChangeInProgress());
        QTRY_VERIFY(nearEnd());
        QVERIFY(!detached);
        QVERIFY(m_t->scroll.autoScroll());
        QVERIFY(!m_view->jumpButton()->isVisible());

        // The user scrolls up: the transcript detaches at once and stays where the user left it.
        bar()->triggerAction(QAbstractSlider::SliderPageStepSub);
        bar()->triggerAction(QAbstractSlider::SliderPageStepSub);
        QVERIFY(!m_t->scroll.autoScroll());
        QVERIFY(m_view->jumpButton()->isVisible());
        const int left = bar()->value();
        const qsizetype length = m_t->chat.messages().last().content.size();
        QTRY_VERIFY(m_t->chat.messages().last().content.size() > length + 300);
        QCOMPARE(bar()->value(), left);

        // Back at the end while streaming is not enough; the jump button is.
        bar()->triggerAction(QAbstractSlider::SliderToMaximum);
        QVERIFY(!m_t->scroll.autoScroll());
        QTest::mouseClick(m_view->jumpButton(), Qt::LeftButton);
        QVERIFY(m_t->scroll.autoScroll());
        QTRY_VERIFY(nearEnd());
        m_t->chat.stop();
    }
    // Code scrolls sideways inside its block; a vertical wheel over it still moves the transcript,
    // and counts as the user's own scroll.
    void wheelOverCodeScrollsTheTranscript()
    {
        QList<ChatMessage> messages;
        for (int i = 0; i < 30; ++i)
            messages.append(ChatMessage(ChatRole::assistant,
                                        u"```\nline one of a wide block %1\nline two\nline three\n```"_s.arg(i)));
        m_t->chat.activate(UiTest::conversationOf(messages));
        QTRY_VERIFY(!m_t->scroll.contentChangeInProgress()); // activating ended a reply, which settles first
        auto *code = m_view->area()->bubbleAt(29)->findChild<CodeTextView *>();
        QVERIFY(code && code->isVisible());
        const int before = bar()->value();
        // Where a wheel over the code ends up once the code itself has let it pass.
        QWidget *strip = code->parentWidget();
        const QPoint at = strip->rect().center();
        QWheelEvent wheel(at, strip->mapToGlobal(at), QPoint(), QPoint(0, 240), Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(strip, &wheel);
        QVERIFY(bar()->value() < before);
        QVERIFY(!m_t->scroll.autoScroll());
    }
    // The bar repaints when it would look different, and only then, and with a style that draws it
    // opaque (Fusion, the tests' style) nothing of the window behind it is painted first; what it
    // shows afterwards is what a whole paint of it shows.
    void scrollBarRepaintsOnlyWhenItsLookChanges_data()
    {
        QTest::addColumn<int>("maximum"); // the value starts there, at the end
        QTest::addColumn<int>("newMaximum");
        QTest::addColumn<QList<int>>("values"); // set one after another, as an easing follow does
        QTest::addColumn<bool>("repaints");
        // A long handle whose ends move repaints the rows they passed, not the inside between them
        // (a fill of that size would be shared out among threads on every update).
        QTest::addColumn<bool>("insideKept");
        QTest::addRow("long, grows, end followed") << 400000 << 400040 << QList<int>{400040} << false << false;
        QTest::addRow("long, same page step set again") << 400000 << 400000 << QList<int>{400000} << false << false;
        QTest::addRow("long, handle moves") << 400000 << 400000 << QList<int>{200000} << true << false;
        QTest::addRow("short, grows, end followed") << 100 << 300 << QList<int>{300} << true << true;
        QTest::addRow("short, grows, end eased after") << 100 << 300 << QList<int>{150, 220, 300} << true << true;
        QTest::addRow("leaves the end") << 100 << 100 << QList<int>{50} << true << false;
        // Under a pixel a step: the first step shows at once, the last one a moment later.
        QTest::addRow("creeps") << 4000 << 4000 << QList<int>{3990, 3980, 3970, 3960} << true << false;
    }
    void scrollBarRepaintsOnlyWhenItsLookChanges()
    {
        QFETCH(int, maximum);
        QFETCH(int, newMaximum);
        QFETCH(QList<int>, values);
        QFETCH(bool, repaints);
        QFETCH(bool, insideKept);
        QWidget window;
        auto *bar = new TranscriptScrollBar(&window);
        window.resize(bar->sizeHint().width(), 400);
        bar->resize(window.size());
        bar->setRange(0, maximum);
        bar->setPageStep(400);
        bar->setValue(maximum);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        int paints = 0;
        int behind = 0;
        QRegion painted;
        UiTest::PaintCounter counter(bar, &paints, &painted);
        UiTest::PaintCounter windowCounter(&window, &behind);
        bar->update();
        QTRY_COMPARE(paints, 1);
        painted = {};

        bar->setRange(0, newMaximum);
        bar->setPageStep(400);
        for (int value : values) {
            bar->setValue(value);
            QTest::qWait(20);
        }
        QTest::qWait(50);
        QCOMPARE(paints > 1, repaints);
        if (insideKept)
            QVERIFY2(painted.rectCount() > 1, qPrintable(QDebug::toString(painted)));
        QCOMPARE(behind, 0);
        QTRY_COMPARE(UiTest::onScreen(&window), UiTest::freshPaint(&window));
    }
    // A followed reply reaches the end and leaves it again with every line it adds: the arrow the
    // style greys out at the end keeps its look until a change has held, and then shows it.
    void scrollBarArrowHoldsWhileTheEndIsFollowed()
    {
        QWidget window;
        auto *bar = new TranscriptScrollBar(&window);
        window.resize(bar->sizeHint().width(), 400);
        bar->resize(window.size());
        bar->setRange(0, 40000);
        bar->setPageStep(400);
        bar->setValue(bar->maximum());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        int paints = 0;
        QRegion painted;
        UiTest::PaintCounter counter(bar, &paints, &painted);
        bar->update();
        QTRY_COMPARE(paints, 1);
        painted = {};
        QStyleOptionSlider option;
        option.initFrom(bar);
        option.orientation = Qt::Vertical;
        option.subControls = QStyle::SC_All;
        const QRect arrow =
            bar->style()->subControlRect(QStyle::CC_ScrollBar, &option, QStyle::SC_ScrollBarAddLine, bar);

        for (int line = 0; line < 8; ++line) {
            bar->setRange(0, bar->maximum() + 10);
            QTest::qWait(25);
            bar->setValue(bar->maximum());
            QTest::qWait(25);
        }
        QVERIFY2(!painted.intersects(arrow), qPrintable(QDebug::toString(painted)));
        bar->setRange(0, bar->maximum() + 10);
        QTRY_VERIFY(painted.intersects(arrow));
        QTRY_COMPARE(UiTest::onScreen(&window), UiTest::freshPaint(&window));
    }
    // What the window shows after many in-place updates is what a fresh paint of the same state
    // shows: partial repaints leave nothing stale behind.
    void streamedPaintMatchesAFreshPaint_data()
    {
        QTest::addColumn<int>("chunk");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        for (int chunk : {1, 4, 7, 23}) {
            for (int width : {360, 520})
                QTest::addRow("%d characters at a time, %d wide", chunk, width) << chunk << width << 1000;
        }
    }
    void streamedPaintMatchesAFreshPaint()
    {
        QFETCH(int, chunk);
        QFETCH(int, width);
        QFETCH(int, height);
        const QString reply = QStringLiteral(
            "# Title\n\nSome *text* that wraps around the narrow window more than once, with `code` and **bold "
            "words** closing late.\n\n"
            // Capitals whose marks reach above the top of their line, on lines that wrap.
            "Über den Öltank: Ärger über Übersicht, Ölpreis und Übermut. Äpfel, Öfen, Übungen und Érable, Ìsola, "
            "Ñandú.\n\n> a quote that is long enough to wrap in the narrow window\n\n"
            "```python\ndef f(x):\n    return x + 1  # and a comment that runs far beyond the right edge of it\n```\n\n"
            "```text\nÜbersicht Ölpreis Ärger\nÜber Öfen Ärger Übungen\nÜbermut Äpfel Érable\n```\n\n"
            "| a | b |\n|---|---|\n| 1 | 2 |\n| longer cell | 3 |\n\n"
            "- one\n- Über Öfen Ärger Übersicht Ölpreis Übermut Äpfel Übungen\n\n9. nine\n10. ten\n");
        QList<QByteArray> pieces;
        for (qsizetype i = 0; i < reply.size(); i += chunk)
            pieces.append(UiTest::deltaEvent(reply.mid(i, chunk)));
        // When tall enough that nothing scrolls, every pixel shown was painted by an in-place update.
        m_view->resize(width, height);
        send(pieces, 1);
        QTRY_VERIFY_WITH_TIMEOUT(!m_t->chat.isStreaming(), 10000);
        QTRY_VERIFY(atEnd());
        QTest::qWait(400);

        const QImage shown = UiTest::onScreen(m_view);
        const QImage fresh = UiTest::freshPaint(m_view);
        QCOMPARE(shown.size(), fresh.size());
        QVERIFY(shown == fresh);
    }

private:
    void send(const QList<QByteArray> &pieces, int delayMs) { m_t->send(pieces, delayMs); }
    QScrollBar *bar() const { return m_view->area()->verticalScrollBar(); }
    bool atEnd() const { return bar()->value() == bar()->maximum(); }
    // While a reply streams faster than the scroll eases, the view trails the end slightly.
    bool nearEnd() const { return bar()->maximum() - bar()->value() < 150; }

    std::unique_ptr<UiTest::StreamedTranscript> m_t;
    TranscriptView *m_view = nullptr;
};

QTEST_MAIN(tst_TranscriptView)
#include "tst_transcriptview.moc"
