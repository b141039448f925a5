#include "ui/codeblockview.h"
#include "ui/copyfeedback.h"
#include "ui/markdowntextview.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QHash>
#include <QMouseEvent>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

using namespace Qt::StringLiterals;

// What a block's view shows, in a few words: "heading 22 bold: Title", "code [js title=x]",
// "item: • item".
static QString describe(const MarkdownBlockView *view)
{
    if (const auto *code = qobject_cast<const CodeBlockView *>(view))
        return u"code [%1]"_s.arg(code->label());
    const auto *text = qobject_cast<const TextBlockView *>(view);
    using Kind = MarkdownText::Block::Kind;
    switch (text->block().kind) {
    case Kind::Heading:
        return u"heading %1%2: %3"_s.arg(text->textFont().pixelSize())
            .arg(text->textFont().bold() ? u" bold"_s : QString())
            .arg(text->displayText());
    case Kind::Bullet:
    case Kind::Ordered:
        return u"item: "_s + text->displayText();
    default:
        return u"paragraph: "_s + text->displayText();
    }
}

class tst_MarkdownViews : public QObject
{
    Q_OBJECT

public slots:
    void openLink(const QUrl &url) { m_opened.append(url); }

private slots:
    void init()
    {
        CopyFeedback::setResetDelayMs(-1);
        m_opened.clear();
    }
    void blocks_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<QStringList>("views");

        QTest::newRow("empty") << QString() << QStringList();
        QTest::newRow("heading sizes by level") << u"# One\n## Two\n### Three\n##### Five"_s
                                                << QStringList{u"heading 22 bold: One"_s, u"heading 19 bold: Two"_s,
                                                               u"heading 17 bold: Three"_s, u"heading 15 bold: Five"_s};
        QTest::newRow("line break kept, markup gone") << u"a **b**\nc"_s << QStringList{u"paragraph: a b\nc"_s};
        QTest::newRow("code labels") << u"```\nx\n```\n```js title=x\ny\n```"_s
                                     << QStringList{u"code [code]"_s, u"code [js title=x]"_s};
        QTest::newRow("unclosed markup stays visible")
            << u"**open [link]("_s << QStringList{u"paragraph: **open [link]("_s};
    }
    void blocks()
    {
        QFETCH(QString, markdown);
        QFETCH(QStringList, views);

        MarkdownTextView view;
        view.setText(markdown);
        QStringList shown;
        for (const MarkdownBlockView *block : view.blockViews())
            shown.append(describe(block));
        QCOMPARE(shown, views);
        QCOMPARE(view.heightForWidth(400) == 0, views.isEmpty());
    }
    // A growing reply keeps the view of every block at its index; a code block keeps its copied
    // state; a block that changes kind gets a new view.
    void inPlaceUpdatesKeepViews()
    {
        MarkdownTextView view;
        view.resize(500, 300);
        view.setText(u"Intro\n\n```py\nx = 1\n```\n\nTail"_s);
        QCOMPARE(view.blockViews().size(), 3);
        const QList<MarkdownBlockView *> before = view.blockViews();
        auto *code = qobject_cast<CodeBlockView *>(before.at(1));
        QVERIFY(code);
        const qint64 idle = code->copyButton()->icon().cacheKey();
        code->copy();
        QVERIFY(code->copied() && code->copyButton()->icon().cacheKey() != idle);

        view.setText(u"Intro\n\n```py\nx = 1\ny = 2\n```\n\nTail grows"_s);
        QCOMPARE(view.blockViews(), before);
        QVERIFY(code->copied());
        QCOMPARE(code->code(), u"x = 1\ny = 2"_s);
        QCOMPARE(describe(view.blockViews().at(2)), u"paragraph: Tail grows"_s);

        view.setText(u"Intro\n\n- now a list"_s);
        QCOMPARE(view.blockViews().size(), 2);
        QCOMPARE(view.blockViews().at(0), before.at(0));
        QVERIFY(view.blockViews().at(1) != before.at(1));
        QCOMPARE(describe(view.blockViews().at(1)), u"item: • now a list"_s);
    }
    // A block that grows a little at a time keeps the lines it had and lays out only the rest:
    // what it draws, where it marks a find hit and how tall it is must be what the whole text
    // laid out at once gives, also once the width changes.
    void grownTextDrawsAsWhole_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<int>("step");

        const QStringList words = u"Throughput `C:\\Users\\dev` café größer **данные** 日本語テキスト ✓ "
                                  "[slot](https://example.com/1) *loop* event a-b-c"_s.split(u' ');
        const auto prose = [&](int count, int seed) {
            QStringList out;
            for (int i = 0; i < count; ++i)
                out.append(words.at((i * 7 + seed) % words.size()));
            return out.join(QLatin1Char(' '));
        };
        QTest::newRow("paragraph") << prose(160, 1) << 7;
        QTest::newRow("bold closed many lines later") << u"**"_s + prose(60, 2) + u"** "_s + prose(40, 3) << 5;
        QTest::newRow("list item") << u"- "_s + prose(90, 4) << 3;
        QTest::newRow("quote") << u"> "_s + prose(90, 5) << 11;
        QTest::newRow("line breaks") << prose(30, 6) + u"\n"_s + prose(40, 7) + u"\n\\"_s + prose(30, 8) << 4;
        QTest::newRow("right to left") << u"שלום עולם 123 "_s + prose(60, 10) << 9;
        QTest::newRow("unbroken run") << QString(700, QLatin1Char('w')) + QLatin1Char(' ') + prose(40, 11) << 13;
        QTest::newRow("longer than a span") << prose(1100, 12) << 37;
        // Strings and comments that close lines after they open, a quote split from its escape.
        QTest::newRow("code block") << u"```js\n"_s +
                                           u"let a = 'it\\'s' + \"x /* not\" // c\n/* open\nstill */ const b = "
                                           "`t\nu` + 42;\nif (a) return \"done\\\n\"; // end\n"_s.repeated(6)
                                    << 3;
    }
    void grownTextDrawsAsWhole()
    {
        QFETCH(QString, markdown);
        QFETCH(int, step);

        constexpr int width = 420;
        MarkdownTextView grown;
        grown.resize(width, 10);
        for (qsizetype end = step; end < markdown.size(); end += step) {
            grown.setText(markdown.first(end));
            grown.resize(width, grown.heightForWidth(width));
        }
        grown.setText(markdown);
        MarkdownTextView whole;
        whole.setText(markdown);

        const auto compare = [&](int w) {
            grown.resize(w, grown.heightForWidth(w));
            whole.resize(w, whole.heightForWidth(w));
            QCOMPARE(grown.height(), whole.height());
            QCOMPARE(grown.grab().toImage(), whole.grab().toImage());
        };
        compare(width);
        // A hit across the middle of the text, wrapped over a line's end somewhere.
        const qsizetype middle = markdown.size() / 2;
        const QHash<int, QList<FindHit>> hits{{0, {FindHit{0, {middle, 30}, true}}}};
        grown.setFindHits(hits);
        whole.setFindHits(hits);
        compare(width);
        QCOMPARE(grown.blockViews().at(0)->currentHitRect(), whole.blockViews().at(0)->currentHitRect());
        // The same link under the pointer everywhere: its target shows as the tooltip.
        QWidget *grownBlock = grown.blockViews().at(0);
        QWidget *wholeBlock = whole.blockViews().at(0);
        for (int y = 2; y < grownBlock->height(); y += 9) {
            for (int x = 2; x < width; x += 17) {
                for (QWidget *block : {grownBlock, wholeBlock}) {
                    QMouseEvent move(QEvent::MouseMove, QPointF(x, y), block->mapToGlobal(QPointF(x, y)), Qt::NoButton,
                                     Qt::NoButton, Qt::NoModifier);
                    QApplication::sendEvent(block, &move);
                }
                QCOMPARE(grownBlock->toolTip(), wholeBlock->toolTip());
            }
        }
        compare(width + 137);
    }
    // A paragraph reads in the direction of its first letter to its end, also where a long one
    // is cut into spans and the next span starts with a word of the other direction.
    void longParagraphKeepsItsDirection()
    {
        const QString text = u"שלום עולם "_s.repeated(409) + u"abc def ghi jkl שלום"_s;
        MarkdownTextView view;
        view.setText(text);
        view.resize(420, view.heightForWidth(420));
        const auto hitRect = [&](qsizetype start, qsizetype length) {
            view.setFindHits({{0, {FindHit{0, {start, length}, true}}}});
            return view.blockViews().at(0)->currentHitRect();
        };
        const QRect latin = hitRect(text.indexOf(u"def"), 3);
        const QRect hebrew = hitRect(text.size() - 4, 4);
        QCOMPARE(latin.top(), hebrew.top());
        // Right to left, the word that ends the line is drawn left of the ones before it.
        QCOMPARE_LT(hebrew.left(), latin.left());
    }
    // Blocks stack top to bottom, each at its own height and 3 points apart, however many there
    // are and however the text grew, shrank or changed in the middle. Text given before the view
    // has a size is placed at its first size, even one equal to the size Qt gives a widget nobody
    // sized.
    void blocksStack_data()
    {
        QTest::addColumn<QString>("first");
        QTest::addColumn<QString>("second");
        QTest::addColumn<bool>("unsized"); // laid out at the width Qt gave the view
        const auto paragraphs = [](int count, int longOne = -1) {
            QStringList parts;
            for (int k = 0; k < count; ++k)
                parts.append(k == longOne ? u"words "_s.repeated(80) : u"Paragraph %1"_s.arg(k));
            return parts.join(u"\n\n"_s);
        };
        QTest::newRow("grows past a run") << paragraphs(20) << paragraphs(70) << false;
        QTest::newRow("shrinks to a run and one") << paragraphs(70) << paragraphs(33) << false;
        QTest::newRow("shrinks to part of a run") << paragraphs(70) << paragraphs(5) << false;
        QTest::newRow("middle block grows") << paragraphs(70) << paragraphs(70, 40) << false;
        QTest::newRow("first block grows") << paragraphs(70) << paragraphs(70, 0) << false;
        QTest::newRow("unsized") << u"First\n\nSecond"_s << u"First\n\nSecond"_s << true;
    }
    void blocksStack()
    {
        QFETCH(QString, first);
        QFETCH(QString, second);
        QFETCH(bool, unsized);
        QWidget parent;
        parent.resize(300, 300);
        auto *view = new MarkdownTextView(&parent);
        parent.show();
        const int width = unsized ? view->width() : 300;
        for (const QString &text : {first, second}) {
            view->setText(text);
            view->setGeometry(0, 0, width, view->heightForWidth(width));
            int y = 0;
            for (const MarkdownBlockView *block : view->blockViews()) {
                QVERIFY(block->isVisibleTo(view));
                QCOMPARE(block->mapTo(view, QPoint(0, 0)), QPoint(0, y));
                QCOMPARE(block->size(), QSize(width, block->heightForWidth(width)));
                y += block->height() + MarkdownTextView::blockSpacing;
            }
            QCOMPARE(y - MarkdownTextView::blockSpacing, view->height());
        }
    }
    // A streamed update repaints each block it changed once, the rows it grew into with its
    // changed lines, and no other block: not one where a new block first appears.
    void updatesRepaintChangedBlocksOnce_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("after");
        QTest::addColumn<QList<int>>("paints"); // per block, code counted in its lines' view
        const QString intro = u"Intro words\n\n"_s;
        const QString line = u"grows a line "_s.repeated(8);
        QTest::newRow("within a line") << intro + u"Tail"_s << intro + u"Tail grows"_s << QList<int>{0, 1};
        QTest::newRow("by a line") << intro + u"Tail"_s << intro + u"Tail "_s + line << QList<int>{0, 1};
        QTest::newRow("new block") << intro + u"Tail"_s << intro + u"Tail\n\nNew"_s << QList<int>{0, 0, 1};
        QTest::newRow("code by a line") << intro + u"```\na\n"_s << intro + u"```\na\nb\n"_s << QList<int>{0, 1};
    }
    void updatesRepaintChangedBlocksOnce()
    {
        QFETCH(QString, before);
        QFETCH(QString, after);
        QFETCH(QList<int>, paints);
        // As in a message: opaque blocks on a solid colour, the text placed where it now reaches.
        QWidget window;
        window.setAutoFillBackground(true);
        window.resize(400, 400);
        auto *view = new MarkdownTextView(&window);
        view->setBackdrop(window.palette().color(QPalette::Window));
        const auto place = [view] { view->setGeometry(0, 0, 300, view->heightForWidth(300)); };
        view->setText(before);
        place();
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCoreApplication::processEvents();

        struct Counter : QObject
        {
            QHash<QObject *, int> paints;
            bool eventFilter(QObject *watched, QEvent *event) override
            {
                if (event->type() == QEvent::Paint)
                    ++paints[watched];
                return false;
            }
        } counter;
        qApp->installEventFilter(&counter);
        view->setText(after);
        place();
        QCoreApplication::processEvents();
        qApp->removeEventFilter(&counter);

        QList<int> painted;
        for (MarkdownBlockView *block : view->blockViews()) {
            auto *code = qobject_cast<CodeBlockView *>(block);
            painted.append(counter.paints.value(code ? static_cast<QObject *>(code->codeView()) : block));
        }
        QCOMPARE(painted, paints);
    }
    void code_copiesTheSelectionAndResetsFromEachPress()
    {
        // The code is selectable: a drag over the second line and the copy shortcut.
        CodeBlockView view(u"print(\"hi\")\nexit()"_s, u"python"_s);
        CodeTextView *code = view.codeView();
        view.resize(400, view.heightForWidth(400));
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        const int line = (code->contentHeight() - 2 * CodeTextView::padding) / 2;
        const int y = CodeTextView::padding + line + line / 2;
        QTest::mousePress(code, Qt::LeftButton, {}, QPoint(CodeTextView::padding, y));
        QMouseEvent move(QEvent::MouseMove, QPointF(code->contentWidth(), y),
                         code->mapToGlobal(QPointF(code->contentWidth(), y)), Qt::NoButton, Qt::LeftButton,
                         Qt::NoModifier);
        QApplication::sendEvent(code, &move);
        QCOMPARE(code->selectedText(), u"exit()"_s);
        // Like the button, the shortcut clears the clipboard before it sets the text.
        QSignalSpy changes(QGuiApplication::clipboard(), &QClipboard::dataChanged);
        QTest::keyClick(code, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), u"exit()"_s);
        QCOMPARE(changes.count(), 2);

        // Each press of the button schedules its own reset and none is cancelled: a second press
        // shortly after the first is cleared by the first one's reset.
        CopyFeedback::setResetDelayMs(400);
        QElapsedTimer sinceFirst;
        sinceFirst.start();
        view.copy();
        QTest::qWait(200);
        view.copy();
        if (sinceFirst.elapsed() >= 350)
            QSKIP("the machine was too busy to press twice within the reset time");
        // Past the first press's reset, and before the second one's.
        QTest::qWait(250);
        QVERIFY(!view.copied());
    }
    void onlySafeLinksOpen_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<int>("opened");
        QTest::newRow("https") << u"[go](https://example.com/a)"_s << 1;
        QTest::newRow("file") << u"[go](file:///etc/passwd)"_s << 0;
    }
    void onlySafeLinksOpen()
    {
        QFETCH(QString, markdown);
        QFETCH(int, opened);
        for (const char *scheme : {"https", "mailto", "file", "javascript"})
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "openLink");

        MarkdownTextView view;
        view.setText(markdown);
        view.resize(400, view.heightForWidth(400));
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QTest::mouseClick(view.blockViews().at(0), Qt::LeftButton, {}, QPoint(6, 6));
        QCOMPARE(m_opened.size(), opened);

        for (const char *scheme : {"https", "mailto", "file", "javascript"})
            QDesktopServices::unsetUrlHandler(QString::fromLatin1(scheme));
    }

private:
    QList<QUrl> m_opened;
};

QTEST_MAIN(tst_MarkdownViews)
#include "tst_markdownviews.moc"
