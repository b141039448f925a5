#include "ui/scrollcontroller.h"

#include <QScrollBar>
#include <QTest>

// One step of a scripted session with the controller.
struct Step
{
    enum Op {
        Report,     // a geometry report: bottomOffset, viewportHeight, streaming
        UserScroll, // the same, caused by the user's own scrolling
        SetAuto,    // autoScroll = flag
        Begin,      // beginContentChange(); its token becomes the latest
        EndLatest,  // endContentChangeSoon(latest token)
        EndStale,   // endContentChangeSoon(the token before the latest)
        Settle,     // let queued steps and the settle delay run
        Advance,    // move the clock on by ms
        ScrollAnimated,
        ScrollPlain,
        DropProxy, // the transcript is gone
        Switch,    // t = beginContentChange(), then conversationSwitched(t)
        StreamEnd,
        Sent,
    };
    Op op;
    double bottom = 0;
    double viewport = 0;
    bool flag = false;
    int ms = 0;
};

static Step report(double bottom, double viewport, bool streaming = false)
{
    return {Step::Report, bottom, viewport, streaming};
}
static Step userScroll(double bottom, double viewport, bool streaming)
{
    return {Step::UserScroll, bottom, viewport, streaming};
}
static Step op(Step::Op o, bool flag = false)
{
    return {o, 0, 0, flag};
}
static Step advance(int ms)
{
    return {Step::Advance, 0, 0, false, ms};
}

Q_DECLARE_METATYPE(QList<Step>)

class tst_ScrollController : public QObject
{
    Q_OBJECT

private slots:
    void transitions_data()
    {
        QTest::addColumn<QList<Step>>("steps");
        QTest::addColumn<bool>("autoScroll");
        QTest::addColumn<bool>("changing"); // a content change still in progress
        QTest::addColumn<bool>("atEnd");    // the scroll bar sits at its maximum

        using S = Step;
        const auto row = [](const char *name, const QList<Step> &steps, bool autoScroll, bool changing, bool atEnd) {
            QTest::newRow(name) << steps << autoScroll << changing << atEnd;
        };
        // Not measured yet: only outside streaming does a report decide.
        row("unmeasured, idle: follows", {op(S::SetAuto, false), report(500, 0)}, true, false, false);
        row("unmeasured, streaming: unchanged", {op(S::SetAuto, false), report(500, 0, true)}, false, false, false);
        // The threshold is inclusive.
        row("64 points away is near", {op(S::SetAuto, false), report(664, 600)}, true, false, false);
        row("64.5 points away is away", {report(664.5, 600)}, false, false, false);
        // While streaming a report can detach but never reattach.
        row("streaming, back near: stays detached", {report(2000, 600, true), report(600, 600, true)}, false, false,
            false);
        row("after the stream, near: follows", {report(2000, 600, true), report(600, 600, false)}, true, false, false);
        // A content change ignores reports until its own end has settled.
        row("content change ignores reports", {op(S::Begin), report(2000, 600)}, true, true, false);
        row("ended change evaluates again", {op(S::Begin), op(S::EndLatest), op(S::Settle), report(2000, 600)}, false,
            false, false);
        row("a stale end leaves the newer change running",
            {op(S::Begin), op(S::Begin), op(S::EndStale), op(S::Settle), report(2000, 600)}, true, true, false);
        row("begin switches following on", {op(S::SetAuto, false), op(S::Begin)}, true, true, false);
        // The program's own scrolls are ignored for their window; the window only grows.
        row("inside the animated window: ignored", {op(S::ScrollAnimated), advance(340), report(2000, 600)}, true,
            false, true);
        row("after the animated window: evaluated", {op(S::ScrollAnimated), advance(360), report(2000, 600)}, false,
            false, true);
        row("plain window is shorter", {op(S::ScrollPlain), advance(160), report(2000, 600)}, false, false, true);
        row("animated then plain keeps the longer window",
            {op(S::ScrollAnimated), op(S::ScrollPlain), advance(200), report(2000, 600)}, true, false, true);
        row("no handle: no scroll and no window", {op(S::DropProxy), op(S::ScrollAnimated), report(2000, 600)}, false,
            false, false);
        // The user's own scroll is never ignored for the program's scroll window.
        row("user scroll inside the window detaches", {op(S::ScrollAnimated), advance(50), userScroll(2000, 600, true)},
            false, false, false);
        row("user scroll during a content change is ignored", {op(S::Begin), userScroll(2000, 600, true)}, true, true,
            false);
        // The window's reactions.
        row("send: the reply is followed once the send settles",
            {op(S::Sent), op(S::Settle), advance(400), report(2000, 600, true)}, false, false, true);
        row("send: its own scroll never detaches", {op(S::Sent), report(2000, 600, true)}, true, true, true);
        row("stream end: follows and ends at the bottom", {op(S::SetAuto, false), op(S::StreamEnd), op(S::Settle)},
            true, false, true);
        row("switch: ends at the bottom, then reports count",
            {op(S::Switch), op(S::Settle), advance(400), report(2000, 600)}, false, false, true);
        row("two quick switches: the second one ends the change", {op(S::Switch), op(S::Switch), op(S::Settle)}, true,
            false, true);
        // Activating stops the reply, which runs the stream-end reaction inside the switch: the
        // stream end's newer token wins, and the view still ends at the bottom.
        row("switch with a stream end inside it", {op(S::Begin), op(S::StreamEnd), op(S::Switch), op(S::Settle)}, true,
            false, true);
    }
    void transitions()
    {
        QFETCH(QList<Step>, steps);
        QFETCH(bool, autoScroll);
        QFETCH(bool, changing);
        QFETCH(bool, atEnd);

        ScrollController controller;
        qint64 now = 1'000'000;
        controller.setClock([&now] { return now; });
        controller.setContentChangeSettleMs(0);
        QScrollBar bar(Qt::Vertical);
        bar.setRange(0, 1000);
        controller.setProxy(&bar);
        QList<qint64> tokens{0};

        for (const Step &step : steps) {
            switch (step.op) {
            case Step::Report:
            case Step::UserScroll:
                controller.setBottomOffset(step.bottom);
                controller.setViewportHeight(step.viewport);
                if (step.op == Step::Report)
                    controller.scrollDidChange(step.flag);
                else
                    controller.userDidScroll(step.flag);
                break;
            case Step::SetAuto:
                controller.setAutoScroll(step.flag);
                break;
            case Step::Begin:
                tokens.append(controller.beginContentChange());
                break;
            case Step::EndLatest:
                controller.endContentChangeSoon(tokens.last());
                break;
            case Step::EndStale:
                controller.endContentChangeSoon(tokens.at(tokens.size() - 2));
                break;
            case Step::Settle:
                // Two turns for the deferred scrolls, then the settle delay.
                for (int i = 0; i < 4; ++i)
                    QCoreApplication::processEvents();
                QTest::qWait(20);
                break;
            case Step::Advance:
                now += step.ms;
                break;
            case Step::ScrollAnimated:
                controller.scrollToBottom(true);
                break;
            case Step::ScrollPlain:
                controller.scrollToBottom(false);
                break;
            case Step::DropProxy:
                controller.setProxy(nullptr);
                break;
            case Step::Switch: {
                const qint64 token = controller.beginContentChange();
                tokens.append(token);
                controller.conversationSwitched(token);
                break;
            }
            case Step::StreamEnd:
                controller.streamEnded();
                break;
            case Step::Sent:
                controller.messageSent();
                break;
            }
        }
        QCOMPARE(controller.autoScroll(), autoScroll);
        QCOMPARE(controller.contentChangeInProgress(), changing);
        if (atEnd)
            QTRY_COMPARE(bar.value(), bar.maximum());
        else
            QCOMPARE(bar.value(), 0);
    }
    // The animated scroll eases to the end and follows an end that moves while it runs. Following a
    // streaming reply eases out over the same 0.15 s, stepping with its updates; the timer finishes
    // the ease when updates pause. A user's scroll stops either where it is.
    void scrollsEaseToTheEnd()
    {
        ScrollController controller;
        QScrollBar bar(Qt::Vertical);
        bar.setRange(0, 1000);
        controller.setProxy(&bar);

        controller.scrollToBottom(true);
        bar.setRange(0, 1500);
        QTRY_COMPARE(bar.value(), 1500);

        bar.setValue(0);
        controller.scrollToBottom(true);
        QTest::qWait(30);
        controller.userDidScroll(false);
        const int stoppedAt = bar.value();
        QTest::qWait(200);
        QCOMPARE(bar.value(), stoppedAt);
        QVERIFY(stoppedAt < 1500);

        qint64 now = 0;
        controller.setClock([&now] { return now; });
        bar.setRange(0, 1000);
        bar.setValue(0);
        controller.followGrowth();
        QCOMPARE(bar.value(), 0);
        now += 50;
        bar.setRange(0, 1300);
        controller.followGrowth();
        QVERIFY(bar.value() > 650 && bar.value() < 1300); // eased out: more than half-way at a third
        now += 100;
        controller.followGrowth();
        QCOMPARE(bar.value(), 1300);

        // Updates stop half-way: the timer takes the rest.
        bar.setRange(0, 1600);
        controller.followGrowth();
        now += 200;
        QTRY_COMPARE(bar.value(), 1600);

        bar.setRange(0, 2000);
        controller.followGrowth();
        now += 50;
        controller.userDidScroll(true);
        now += 200;
        QTest::qWait(2 * ScrollController::followIdleStepMs);
        QCOMPARE(bar.value(), 1600);
    }
};

QTEST_MAIN(tst_ScrollController)
#include "tst_scrollcontroller.moc"
