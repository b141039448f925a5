#include "ui/codeblockview.h"
#include "ui/copyfeedback.h"
#include "ui/markdowntextview.h"
#include "ui/tableblockview.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QMouseEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

// What a block's view shows, in a few words: "heading 22 bold: Title", "code [js title=x]",
// "table 3x2", "bullet: • item".
static QString describe(const MarkdownBlockView *view)
{
    if (const auto *code = qobject_cast<const CodeBlockView *>(view))
        return QStringLiteral("code [%1]").arg(code->label());
    if (const auto *table = qobject_cast<const TableBlockView *>(view))
        return QStringLiteral("table %1x%2").arg(table->columnCount()).arg(table->rowCount());
    const auto *text = qobject_cast<const TextBlockView *>(view);
    using Kind = MarkdownText::Block::Kind;
    switch (text->block().kind) {
    case Kind::Heading:
        return QStringLiteral("heading %1%2: %3")
            .arg(text->textFont().pixelSize())
            .arg(text->textFont().bold() ? QStringLiteral(" bold") : QString())
            .arg(text->displayText());
    case Kind::Bullet:
    case Kind::Ordered:
        return QStringLiteral("item: ") + text->displayText();
    case Kind::Quote:
        return QStringLiteral("quote: ") + text->displayText();
    default:
        return QStringLiteral("paragraph: ") + text->displayText();
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
        QTest::newRow("heading sizes by level")
            << QStringLiteral("# One\n## Two\n### Three\n##### Five")
            << QStringList{QStringLiteral("heading 22 bold: One"), QStringLiteral("heading 19 bold: Two"),
                           QStringLiteral("heading 17 bold: Three"), QStringLiteral("heading 15 bold: Five")};
        QTest::newRow("line break kept, markup gone")
            << QStringLiteral("a **b**\nc") << QStringList{QStringLiteral("paragraph: a b\nc")};
        QTest::newRow("lists") << QStringLiteral("- item\n12. twelve")
                               << QStringList{QStringLiteral("item: • item"), QStringLiteral("item: 12. twelve")};
        QTest::newRow("quote") << QStringLiteral("> said") << QStringList{QStringLiteral("quote: said")};
        QTest::newRow("code labels") << QStringLiteral("```\nx\n```\n```js title=x\ny\n```")
                                     << QStringList{QStringLiteral("code [code]"), QStringLiteral("code [js title=x]")};
        QTest::newRow("table") << QStringLiteral("| a | b |\n|---|---|\n| 1 | 2 |")
                               << QStringList{QStringLiteral("table 2x1")};
        QTest::newRow("unclosed markup stays visible")
            << QStringLiteral("**open [link](") << QStringList{QStringLiteral("paragraph: **open [link](")};
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
        view.resize(400, view.heightForWidth(400));
        QCOMPARE(view.heightForWidth(400) == 0, views.isEmpty());
    }
    // A growing reply keeps the view of every block at its index; a code block keeps its copied
    // state; a block that changes kind gets a new view.
    void inPlaceUpdatesKeepViews()
    {
        MarkdownTextView view;
        view.resize(500, 300);
        view.setText(QStringLiteral("Intro\n\n```py\nx = 1\n```\n\nTail"));
        QCOMPARE(view.blockViews().size(), 3);
        const QList<MarkdownBlockView *> before = view.blockViews();
        auto *code = qobject_cast<CodeBlockView *>(before.at(1));
        QVERIFY(code);
        code->copy();
        QVERIFY(code->copied());

        view.setText(QStringLiteral("Intro\n\n```py\nx = 1\ny = 2\n```\n\nTail grows"));
        QCOMPARE(view.blockViews(), before);
        QVERIFY(code->copied());
        QCOMPARE(code->code(), QStringLiteral("x = 1\ny = 2"));
        QCOMPARE(describe(view.blockViews().at(2)), QStringLiteral("paragraph: Tail grows"));

        view.setText(QStringLiteral("Intro\n\n- now a list"));
        QCOMPARE(view.blockViews().size(), 2);
        QCOMPARE(view.blockViews().at(0), before.at(0));
        QVERIFY(view.blockViews().at(1) != before.at(1));
        QCOMPARE(describe(view.blockViews().at(1)), QStringLiteral("item: • now a list"));
    }
    // Text given before the view has a size is placed at its first size, even one equal to the
    // size Qt gives a widget nobody sized.
    void placedAtFirstSize()
    {
        QWidget parent;
        parent.resize(300, 300);
        auto *view = new MarkdownTextView(&parent);
        parent.show();
        view->setText(QStringLiteral("First\n\nSecond"));
        const int w = view->width();
        view->setGeometry(0, 0, w, view->heightForWidth(w));
        const QList<MarkdownBlockView *> blocks = view->blockViews();
        QCOMPARE(blocks.size(), 2);
        QCOMPARE(blocks.at(0)->height(), blocks.at(0)->heightForWidth(w));
        QVERIFY(blocks.at(1)->y() > blocks.at(0)->geometry().bottom());
    }
    // A block that grows a little at a time keeps the lines it had and lays out only the rest:
    // what it draws, where it marks a find hit and how tall it is must be what the whole text
    // laid out at once gives, also once the width changes.
    void grownTextDrawsAsWhole_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<int>("step");

        QStringList words{QStringLiteral("Throughput"), QStringLiteral("`C:\\Users\\dev`"),
                          QStringLiteral("café"),       QStringLiteral("größer"),
                          QStringLiteral("**данные**"), QStringLiteral("日本語テキスト"),
                          QStringLiteral("✓"),          QStringLiteral("[slot](https://example.com/1)"),
                          QStringLiteral("*loop*"),     QStringLiteral("event"),
                          QStringLiteral("a-b-c")};
        const auto prose = [&](int count, int seed) {
            QStringList out;
            for (int i = 0; i < count; ++i)
                out.append(words.at((i * 7 + seed) % words.size()));
            return out.join(QLatin1Char(' '));
        };
        QTest::newRow("paragraph") << prose(160, 1) << 7;
        QTest::newRow("bold closed many lines later")
            << QStringLiteral("**") + prose(60, 2) + QStringLiteral("** ") + prose(40, 3) << 5;
        QTest::newRow("list item") << QStringLiteral("- ") + prose(90, 4) << 3;
        QTest::newRow("quote") << QStringLiteral("> ") + prose(90, 5) << 11;
        QTest::newRow("line breaks") << prose(30, 6) + QStringLiteral("\n") + prose(40, 7) + QStringLiteral("\n\\") +
                                            prose(30, 8)
                                     << 4;
        QTest::newRow("right to left") << QStringLiteral("שלום עולם 123 ") + prose(60, 10) << 9;
        QTest::newRow("unbroken run") << QString(700, QLatin1Char('w')) + QLatin1Char(' ') + prose(40, 11) << 13;
        QTest::newRow("longer than a span") << prose(1100, 12) << 37;
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
    // Blocks stack top to bottom, each at its own height and 3 points apart, however many there
    // are and however the text grew, shrank or changed in the middle.
    void blocksStack_data()
    {
        QTest::addColumn<QString>("first");
        QTest::addColumn<QString>("second");
        const auto paragraphs = [](int count, int longOne = -1) {
            QStringList parts;
            for (int k = 0; k < count; ++k)
                parts.append(k == longOne ? QStringLiteral("words ").repeated(80)
                                          : QStringLiteral("Paragraph %1").arg(k));
            return parts.join(QStringLiteral("\n\n"));
        };
        QTest::newRow("grows past a run") << paragraphs(20) << paragraphs(70);
        QTest::newRow("shrinks to a run and one") << paragraphs(70) << paragraphs(33);
        QTest::newRow("shrinks to part of a run") << paragraphs(70) << paragraphs(5);
        QTest::newRow("middle block grows") << paragraphs(70) << paragraphs(70, 40);
        QTest::newRow("first block grows") << paragraphs(70) << paragraphs(70, 0);
    }
    void blocksStack()
    {
        QFETCH(QString, first);
        QFETCH(QString, second);
        QWidget parent;
        parent.resize(300, 300);
        auto *view = new MarkdownTextView(&parent);
        parent.show();
        for (const QString &text : {first, second}) {
            view->setText(text);
            view->setGeometry(0, 0, 300, view->heightForWidth(300));
            int y = 0;
            for (const MarkdownBlockView *block : view->blockViews()) {
                QVERIFY(block->isVisibleTo(view));
                QCOMPARE(block->mapTo(view, QPoint(0, 0)), QPoint(0, y));
                QCOMPARE(block->size(), QSize(300, block->heightForWidth(300)));
                y += block->height() + MarkdownTextView::blockSpacing;
            }
            QCOMPARE(y - MarkdownTextView::blockSpacing, view->height());
        }
    }
    void copyCode()
    {
        CodeBlockView view(QStringLiteral("print(\"hi\")\nexit()"), QStringLiteral("python"));
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        const qint64 before = view.copyButton()->icon().cacheKey();

        view.copyButton()->setFocus();
        QTest::keyClick(view.copyButton(), Qt::Key_Space);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("print(\"hi\")\nexit()"));
        QVERIFY(view.copied());
        QVERIFY(view.copyButton()->icon().cacheKey() != before);

        // The code itself is selectable: a drag over the second line and the copy shortcut.
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
        QCOMPARE(code->selectedText(), QStringLiteral("exit()"));
        // Like the button, the shortcut clears the clipboard before it sets the text.
        QSignalSpy changes(QGuiApplication::clipboard(), &QClipboard::dataChanged);
        QTest::keyClick(code, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("exit()"));
        QCOMPARE(changes.count(), 2);
    }
    // Each press schedules its own reset and none is cancelled: a second press shortly after the
    // first is cleared by the first one's reset.
    void copyResetsFromEachPress()
    {
        CopyFeedback::setResetDelayMs(400);
        CodeBlockView view(QStringLiteral("x"), std::nullopt);
        QElapsedTimer timer;
        timer.start();
        view.copy();
        QTest::qWait(200);
        view.copy();
        QVERIFY(view.copied());
        QTRY_VERIFY_WITH_TIMEOUT(!view.copied(), 2000);
        QVERIFY2(timer.elapsed() < 600, "the first press's reset cleared the check mark");
    }
    void longCodeScrollsInside()
    {
        MarkdownTextView view;
        view.setText(QStringLiteral("```\n") + QString(400, QLatin1Char('x')) + QStringLiteral("\n```"));
        view.resize(300, view.heightForWidth(300));
        view.show();
        auto *code = qobject_cast<CodeBlockView *>(view.blockViews().at(0));
        QVERIFY(code);
        QCOMPARE(view.idealWidth(), -1);
        QCOMPARE(code->width(), 300);
        QVERIFY(code->codeView()->width() > 1000);
        QCOMPARE(code->scrollArea()->horizontalScrollBar()->maximum(), code->codeView()->width() - 300);
    }
    void onlySafeLinksOpen_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<int>("opened");
        QTest::newRow("https") << QStringLiteral("[go](https://example.com/a)") << 1;
        QTest::newRow("mail autolink") << QStringLiteral("<me@example.com>") << 1;
        QTest::newRow("file") << QStringLiteral("[go](file:///etc/passwd)") << 0;
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
