#include "model/textsearch.h"
#include "ui/conversationdelegate.h"
#include "ui/conversationlistmodel.h"
#include "ui/conversationlistview.h"
#include "uitestsupport.h"

#include <QApplication>
#include <QPainter>
#include <QScrollBar>
#include <QStandardItemModel>
#include <QTest>

using Range = TextSearch::Range;

namespace {

QList<QStandardItem *> rows(int count, const QString &prefix)
{
    QList<QStandardItem *> items;
    for (int i = 0; i < count; ++i)
        items.append(new QStandardItem(QStringLiteral("%1 %2").arg(prefix).arg(i)));
    return items;
}

struct Row
{
    QString title;
    QString date;
    QString context;
    QList<Range> hits;
    int width = 300;
};

void show(QStandardItem *item, const Row &row)
{
    item->setData(row.title, Qt::DisplayRole);
    item->setData(row.date, ConversationListModel::DateTextRole);
    item->setData(row.context, ConversationListModel::ContextRole);
    item->setData(QVariant::fromValue(row.hits), ConversationListModel::ContextHitsRole);
}

QImage drawn(const ConversationDelegate &delegate, const QModelIndex &index, int width)
{
    QImage image(width, 64, QImage::Format_RGB32);
    image.fill(Qt::white);
    QStyleOptionViewItem option;
    option.rect = image.rect();
    option.palette = QApplication::palette();
    option.state = QStyle::State_Enabled | QStyle::State_Active;
    QPainter painter(&image);
    delegate.paint(&painter, option, index);
    return image;
}

} // namespace

Q_DECLARE_METATYPE(Row)

// The sidebar's list: what its view repaints as rows change, and what its delegate draws for a row.
class TestConversationListView : public QObject
{
    Q_OBJECT

private slots:
    // Rows added at the end repaint only where they land; whatever else moves the rows in sight
    // repaints them all. Either way the screen ends up as a fresh paint of the list.
    void changedRows_repaintWhatTheyChange_data()
    {
        QTest::addColumn<int>("before");
        QTest::addColumn<QString>("change");
        QTest::addColumn<QString>("repainted");

        QTest::newRow("appended below the rows in sight") << 40 << "append"
                                                          << "nothing";
        QTest::newRow("appended into sight") << 3 << "append"
                                             << "new rows";
        QTest::newRow("appended, bringing the scroll bar") << -1 << "append"
                                                           << "all";
        QTest::newRow("inserted at the top") << 40 << "insert at top"
                                             << "all";
        QTest::newRow("first removed, then appended") << 40 << "remove and append"
                                                      << "all";
        QTest::newRow("appended below, selection moved") << 40 << "append and select"
                                                         << "selection";
    }
    void changedRows_repaintWhatTheyChange()
    {
        QFETCH(int, before);
        QFETCH(QString, change);
        QFETCH(QString, repainted);

        QWidget window;
        window.resize(200, 200);
        ConversationListView view(&window);
        view.setUniformItemSizes(true);
        view.setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        view.setGeometry(window.rect());
        QStandardItemModel model;
        model.appendRow(rows(1, QStringLiteral("Row")));
        view.setModel(&model);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        const int rowHeight = view.visualRect(model.index(0, 0)).height();
        QVERIFY(rowHeight > 0);
        // As many rows as fit with no scroll bar, when asked for.
        if (before < 0)
            before = view.viewport()->height() / rowHeight;
        model.clear();
        model.invisibleRootItem()->appendRows(rows(before, QStringLiteral("Row")));
        view.setCurrentIndex(model.index(1, 0));
        QTest::qWait(50);
        const bool hadScrollBar = view.verticalScrollBar()->isVisible();
        const int maximum = view.verticalScrollBar()->maximum();
        const QRect oldSelection = view.visualRect(model.index(1, 0));
        int paints = 0;
        QRegion painted;
        UiTest::PaintCounter log(view.viewport(), &paints, &painted);

        const auto append = [&] { model.invisibleRootItem()->appendRows(rows(5, QStringLiteral("New"))); };
        if (change == u"append") {
            append();
        } else if (change == u"insert at top") {
            model.insertRow(0, rows(1, QStringLiteral("New")));
        } else if (change == u"remove and append") {
            model.removeRows(0, 1);
            append();
        } else if (change == u"append and select") {
            append();
            view.setCurrentIndex(model.index(3, 0));
        }
        QTest::qWait(50);

        const QRect full = view.viewport()->rect();
        if (repainted == u"nothing") {
            QVERIFY2(painted.isEmpty(), qPrintable(QDebug::toString(painted)));
            QVERIFY(view.verticalScrollBar()->maximum() > maximum);
        } else if (repainted == u"new rows") {
            const QRect firstNew = view.visualRect(model.index(before, 0));
            QCOMPARE(painted, QRegion(QRect(0, firstNew.top(), full.width(), full.height() - firstNew.top())));
        } else if (repainted == u"selection") {
            QCOMPARE(painted, QRegion(oldSelection) + view.visualRect(model.index(3, 0)));
        } else {
            QCOMPARE(painted, QRegion(full));
        }
        if (QByteArrayView(QTest::currentDataTag()).contains("scroll bar"))
            QVERIFY(!hadScrollBar && view.verticalScrollBar()->isVisible());
        QTRY_COMPARE(UiTest::onScreen(&window), UiTest::freshPaint(&window));
    }

    // Asked to, the list draws the rows in its top half at once, and the others and its scroll bar
    // on a later turn, without drawing any row twice; the screen then shows the list as a fresh
    // paint does, the scroll bar's handle sized for the new rows.
    void drawnInTwoTurns_topHalfFirst()
    {
        QWidget window;
        window.resize(200, 200);
        ConversationListView view(&window);
        view.setUniformItemSizes(true);
        view.setGeometry(window.rect());
        QStandardItemModel model;
        model.invisibleRootItem()->appendRows(rows(40, QStringLiteral("Row")));
        view.setModel(&model);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTest::qWait(50);

        view.drawInTwoTurns();
        model.clear();
        model.invisibleRootItem()->appendRows(rows(80, QStringLiteral("New")));
        QVERIFY(view.visualRect(model.index(0, 0)).isValid()); // lays the new rows out now
        int paints = 0;
        QRegion painted;
        UiTest::PaintCounter log(view.viewport(), &paints, &painted);
        view.viewport()->repaint();
        QCOMPARE(paints, 1);
        QVERIFY(!view.verticalScrollBar()->updatesEnabled());

        const QModelIndex middle = view.indexAt(QPoint(0, view.viewport()->height() / 2));
        QVERIFY(middle.isValid());
        const QRect viewport = view.viewport()->rect();
        const QRect top(0, 0, viewport.width(), view.visualRect(middle).bottom() + 1);
        const QRect rest = viewport.adjusted(0, top.height(), 0, 0);
        const QPoint at = view.viewport()->mapTo(&window, QPoint());
        const QImage first = UiTest::onScreen(&window);
        const QImage fresh = UiTest::freshPaint(&window);
        QCOMPARE(first.copy(top.translated(at)), fresh.copy(top.translated(at)));
        QVERIFY(first.copy(rest.translated(at)) != fresh.copy(rest.translated(at)));

        paints = 0; // the fresh paint's own
        painted = QRegion();
        QTRY_COMPARE(paints, 1);
        QCOMPARE(painted, QRegion(rest));
        QVERIFY(view.verticalScrollBar()->updatesEnabled());
        QTRY_COMPARE(UiTest::onScreen(&window), UiTest::freshPaint(&window));
    }
    void keptLines_drawAsFreshOnesAfterAChange_data()
    {
        QTest::addColumn<Row>("before");
        QTest::addColumn<Row>("after");
        const QString longTitle = QStringLiteral("A title far too long to fit on the row of a narrow sidebar at all");
        const Row plain{longTitle, QStringLiteral("Mar 25, 07:38"), {}, {}, 400};
        QTest::newRow("narrowed: the title is elided again") << plain << Row{plain.title, plain.date, {}, {}, 150};
        QTest::newRow("widened: more of the title shows") << Row{plain.title, plain.date, {}, {}, 150} << plain;
        QTest::newRow("renamed at the same width") << plain << Row{QStringLiteral("Short"), plain.date, {}, {}, 400};
        QTest::newRow("a later date") << plain << Row{plain.title, QStringLiteral("Mar 26, 09:00"), {}, {}, 400};
        const Row found{plain.title, plain.date, QStringLiteral("…the café on the corner"), {{4, 4}}, 300};
        QTest::newRow("the same context, other words in bold")
            << found << Row{found.title, found.date, found.context, {{16, 6}}, 300};
        QTest::newRow("a result becomes a plain row") << found << Row{found.title, found.date, {}, {}, 300};
    }
    void keptLines_drawAsFreshOnesAfterAChange()
    {
        QFETCH(Row, before);
        QFETCH(Row, after);
        QStandardItemModel model;
        auto *item = new QStandardItem;
        model.appendRow(item);
        ConversationDelegate kept;
        show(item, before);
        (void)drawn(kept, model.index(0, 0), before.width);
        show(item, after);
        const QImage again = drawn(kept, model.index(0, 0), after.width);
        ConversationDelegate fresh;
        QCOMPARE(again, drawn(fresh, model.index(0, 0), after.width));
        QImage blank(again.size(), again.format());
        blank.fill(Qt::white);
        QVERIFY(again != blank);
    }
};

QTEST_MAIN(TestConversationListView)
#include "tst_conversationlistview.moc"
