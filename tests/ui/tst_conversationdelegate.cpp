#include "model/textsearch.h"
#include "ui/conversationdelegate.h"
#include "ui/conversationlistmodel.h"

#include <QApplication>
#include <QImage>
#include <QPainter>
#include <QStandardItemModel>
#include <QTest>

using Range = TextSearch::Range;

namespace {

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

class tst_ConversationDelegate : public QObject
{
    Q_OBJECT

private slots:
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

QTEST_MAIN(tst_ConversationDelegate)
#include "tst_conversationdelegate.moc"
