#include "ui/conversationlistview.h"

#include <QApplication>
#include <QPaintEvent>
#include <QScreen>
#include <QScrollBar>
#include <QStandardItemModel>
#include <QTest>

namespace {

// Collects what the viewport is asked to paint.
class PaintLog final : public QObject
{
public:
    explicit PaintLog(QWidget *widget) { widget->installEventFilter(this); }
    QRegion painted;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Paint)
            painted += static_cast<QPaintEvent *>(event)->region();
        return false;
    }
};

QList<QStandardItem *> rows(int count, const QString &prefix)
{
    QList<QStandardItem *> items;
    for (int i = 0; i < count; ++i)
        items.append(new QStandardItem(QStringLiteral("%1 %2").arg(prefix).arg(i)));
    return items;
}

QImage onScreen(QWidget *window)
{
    return window->screen()->grabWindow(window->winId()).toImage().convertToFormat(QImage::Format_RGB32);
}

} // namespace

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
        PaintLog log(view.viewport());

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
            QVERIFY2(log.painted.isEmpty(), qPrintable(QDebug::toString(log.painted)));
            QVERIFY(view.verticalScrollBar()->maximum() > maximum);
        } else if (repainted == u"new rows") {
            const QRect firstNew = view.visualRect(model.index(before, 0));
            QCOMPARE(log.painted, QRegion(QRect(0, firstNew.top(), full.width(), full.height() - firstNew.top())));
        } else if (repainted == u"selection") {
            QCOMPARE(log.painted, QRegion(oldSelection) + view.visualRect(model.index(3, 0)));
        } else {
            QCOMPARE(log.painted, QRegion(full));
        }
        if (QByteArrayView(QTest::currentDataTag()).contains("scroll bar"))
            QVERIFY(!hadScrollBar && view.verticalScrollBar()->isVisible());
        QTRY_COMPARE(onScreen(&window), window.grab().toImage().convertToFormat(QImage::Format_RGB32));
    }
};

QTEST_MAIN(TestConversationListView)
#include "tst_conversationlistview.moc"
