#include "ui/conversationlistmodel.h"

#include "storage/conversationstore.h"

#include <QHash>
#include <QLocale>

ConversationListModel::ConversationListModel(ConversationStore *chats, QObject *parent)
    : QAbstractListModel(parent)
    , m_chats(chats)
{
    // Every change of the list (a save, a rename, an import) may reorder it; a reset costs no
    // more than the rows on screen, which are all a view asks for again.
    connect(chats, &ConversationStore::conversationsChanged, this, [this] {
        beginResetModel();
        endResetModel();
    });
    connect(chats, &QObject::destroyed, this, [this] {
        beginResetModel();
        endResetModel();
    });
}

int ConversationListModel::rowCount(const QModelIndex &parent) const
{
    if (parent.isValid() || !m_chats)
        return 0;
    return int(m_chats->conversations().size());
}

QVariant ConversationListModel::data(const QModelIndex &index, int role) const
{
    if (!m_chats || !index.isValid() || index.row() >= m_chats->conversations().size())
        return {};
    const Conversation &conversation = m_chats->conversations().at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
        return conversation.title;
    case Qt::AccessibleTextRole:
        return QString(conversation.title + QStringLiteral(", ") + dateText(conversation.updatedAt));
    case IdRole:
        return conversation.id;
    case DateTextRole:
        return dateText(conversation.updatedAt);
    default:
        return {};
    }
}

int ConversationListModel::rowOf(const std::optional<QUuid> &id) const
{
    if (!id || !m_chats)
        return -1;
    return int(m_chats->indexOf(*id));
}

QString ConversationListModel::dateText(double updatedAt)
{
    // Working out a local time and formatting it takes microseconds, and each repaint of a list
    // asks again for every row in sight: a screenful of new rows would spend a good part of its
    // first drawing here. Kept by time, a row's date is made once, when its row is shaped ahead.
    static QHash<double, QString> made;
    if (const auto found = made.constFind(updatedAt); found != made.constEnd())
        return *found;
    static const QLocale locale;
    if (made.size() >= 4096)
        made.clear();
    return *made.insert(
        updatedAt, locale.toString(ReferenceDate::toDateTime(updatedAt).toLocalTime(), QStringLiteral("MMM d, HH:mm")));
}
