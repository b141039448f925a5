#include "ui/codeblockview.h"
#include "ui/inlinetext.h"
#include "ui/markdowntextview.h"
#include "ui/messagebubble.h"
#include "ui/tableblockview.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QScrollArea>
#include <QScrollBar>
#include <QTest>
#include <QTextDocument>
#include <QWheelEvent>

using namespace Qt::StringLiterals;

namespace {

// What one step may take here. Generous, since the machine running the suite may be busy: a
// reply that is laid out whole takes minutes, not seconds.
constexpr qint64 budgetMs = 4000;

QString tableOf(int columns, int rows, const QString &cell)
{
    QString text = u"|"_s;
    for (int c = 0; c < columns; ++c)
        text += u" h%1 |"_s.arg(c);
    text += u"\n|"_s + u"---|"_s.repeated(columns) + u'\n';
    for (int r = 0; r < rows; ++r)
        text += u"|"_s + QString(u' ' + cell + u" |"_s).repeated(columns) + u'\n';
    return text;
}

QString codeLines(int count)
{
    QString code = u"```python\n"_s;
    for (int i = 0; i < count; ++i)
        code += u"x_%1 = %1  # line\n"_s.arg(i);
    return code + u"```\n"_s;
}

// Lays the bubble out at a window's width and paints its first and last screenful, as the
// transcript would; returns how many dark points the last one shows.
int show(MessageBubble &bubble)
{
    const int width = 700;
    const int screen = 800;
    bubble.resize(width, bubble.heightForWidth(width));
    QImage target(width, screen, QImage::Format_RGB32);
    target.fill(Qt::white);
    bubble.render(&target, QPoint(), QRegion(0, 0, width, screen));
    target.fill(Qt::white);
    const int top = std::max(0, bubble.height() - screen);
    bubble.render(&target, QPoint(), QRegion(0, top, width, screen));
    int dark = 0;
    for (int y = 0; y < target.height(); ++y) {
        for (int x = 0; x < target.width(); ++x)
            dark += qGray(target.pixel(x, y)) < 200 ? 1 : 0;
    }
    return dark;
}

} // namespace

// Replies that cannot be laid out whole: long lines, huge blocks and tables, deep quotes. They
// are shown cut or a piece at a time, quickly, while the message keeps its text as sent; and no
// block draws outside the width it is given.
class tst_HostileReplies : public QObject
{
    Q_OBJECT

private slots:
    void hostileReplies_data()
    {
        QTest::addColumn<QString>("text");
        const QString mega = QString(1 << 20, u'x');
        QTest::newRow("1 MB line without spaces") << mega;
        QTest::newRow("huge word in a paragraph") << u"Some words, then "_s + mega + u" and more words."_s;
        QTest::newRow("1 MB heading") << u"# "_s + mega;
        QTest::newRow("100,000-line code block") << codeLines(100000);
        QTest::newRow("2,000-column table") << tableOf(2000, 3, u"cell"_s);
        QTest::newRow("table cell of 1 MB") << tableOf(2, 1, mega);
        QTest::newRow("10,000 nested quotes") << u">"_s.repeated(10000) + u" deep"_s;
        QTest::newRow("10,000 quote lines") << u"> quoted line\n"_s.repeated(10000);
        QTest::newRow("32 MB of short lines") << u"a line of prose\n"_s.repeated(2 << 20);
    }
    // Opened whole, then streamed in: every step stays within the budget.
    void hostileReplies()
    {
        QFETCH(QString, text);
        QElapsedTimer timer;
        timer.start();
        MessageBubble bubble(ChatMessage(ChatRole::assistant, text));
        // The end of what is shown is drawn, not left blank; a long code block lays out only the
        // lines drawn.
        QVERIFY(show(bubble) > 20);
        QCOMPARE(bubble.message().content, text);
        if (const auto *code = bubble.findChild<CodeTextView *>())
            QVERIFY2(code->laidOutLineCount() < 200, qPrintable(QString::number(code->laidOutLineCount())));
        QVERIFY2(timer.elapsed() < budgetMs, qPrintable(u"opened in %1 ms"_s.arg(timer.elapsed())));

        ChatMessage message(ChatRole::assistant, QString());
        MessageBubble streamed(message);
        const int steps = 12;
        for (int step = 1; step <= steps; ++step) {
            timer.restart();
            message.content = text.first(text.size() * step / steps);
            streamed.setMessage(message);
            show(streamed);
            QVERIFY2(timer.elapsed() < budgetMs, qPrintable(u"step %1 took %2 ms"_s.arg(step).arg(timer.elapsed())));
        }
        QCOMPARE(streamed.message().content, text);
    }

    void blocksStayWithinWidth_data()
    {
        QTest::addColumn<QString>("markdown");
        const QString item =
            u"Throughput [C:\\Users\\dev](https://example.com/1) throughput backslash `unicode()` buffer memory "
            u"Übersicht ✓ slot [café](https://example.com/10) größer C:\\Users\\dev event loop "
            u"[tokens](https://example.com/15) *event*."_s;
        const QList<std::pair<const char *, QString>> kinds{
            {"heading", u"## "_s + item},
            {"paragraph", item},
            {"bullet", u"- "_s + item},
            {"ordered", u"12. "_s + item},
            {"quote", u"> "_s + item},
            {"unbroken", u"- "_s + QString(3000, u'w')},
            {"code", u"```\n"_s + item + u"\n```"_s},
            {"table", u"| a | b |\n|---|---|\n| "_s + item + u" | "_s + item + u" |"_s},
        };
        for (const auto &[kind, markdown] : kinds)
            QTest::newRow(kind) << markdown;
    }
    // Whatever it shows, a block keeps within the width it was given: text wraps, code and
    // tables scroll inside themselves.
    void blocksStayWithinWidth()
    {
        QFETCH(QString, markdown);
        MarkdownTextView view;
        view.setText(markdown);
        // From the narrowest a message gets in the smallest window up, a point at a time: a wrap
        // goes wrong at one width and not the next.
        for (int width = 100; width <= 700; ++width) {
            view.resize(width, view.heightForWidth(width));
            QPixmap target(view.size());
            view.render(&target);
            for (MarkdownBlockView *block : view.blockViews()) {
                QVERIFY(block->geometry().right() < width);
                if (auto *text = qobject_cast<TextBlockView *>(block))
                    QVERIFY2(text->textRight() <= width, qPrintable(u"%1 at %2"_s.arg(text->textRight()).arg(width)));
            }
        }
    }

    void wideBlocksScrollSideways_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::newRow("table") << tableOf(60, 2, u"a cell"_s);
        QTest::newRow("code") << u"```\n"_s + QString(400, u'x') + u"\n```"_s;
    }
    // Wider than its block, a table or code scrolls sideways inside it, by wheel and for a table by
    // keys, and the message does not widen; code takes the message's whole width, however short.
    void wideBlocksScrollSideways()
    {
        QFETCH(QString, markdown);
        MarkdownTextView view;
        view.setText(markdown);
        MarkdownBlockView *block = view.blockViews().at(0);
        auto *table = qobject_cast<TableBlockView *>(block);
        QScrollArea *area = table ? table->scrollArea() : qobject_cast<CodeBlockView *>(block)->scrollArea();
        QCOMPARE(view.idealWidth() < 0, !table);
        view.resize(400, view.heightForWidth(400));
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QCOMPARE(block->width(), 400);
        QVERIFY(area->widget()->width() > 1000);
        QScrollBar *bar = area->horizontalScrollBar();
        QCOMPARE(bar->maximum(), area->widget()->width() - 400);

        const QPointF at(200, 10);
        QWheelEvent wheel(at, area->mapToGlobal(at), QPoint(-60, 0), QPoint(-120, 0), Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(area->viewport(), &wheel);
        QVERIFY(bar->value() > 0);
        if (!table)
            return;
        table->grid()->setFocus();
        QTest::keyClick(table->grid(), Qt::Key_End);
        QCOMPARE(bar->value(), bar->maximum());
        QTest::keyClick(table->grid(), Qt::Key_Left);
        QVERIFY(bar->value() < bar->maximum());
        QTest::keyClick(table->grid(), Qt::Key_Home);
        QCOMPARE(bar->value(), 0);
    }

    void linkToolTips_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("shown");
        QTest::newRow("host hidden behind a user name")
            << u"https://example.com@evil.test/x"_s << u"https://example.com@evil.test/x"_s;
        QTest::newRow("markup stays text") << u"https://a.test/<b>x</b>"_s << u"https://a.test/<b>x</b>"_s;
    }
    // The tooltip shows the whole address as written, never read as markup.
    void linkToolTips()
    {
        QFETCH(QString, target);
        QFETCH(QString, shown);
        QTextDocument document;
        document.setHtml(linkToolTip(target));
        QCOMPARE(document.toPlainText(), shown);
    }
};

QTEST_MAIN(tst_HostileReplies)
#include "tst_hostilereplies.moc"
