#pragma once

#include <QAbstractListModel>
#include <QDateTime>
#include <QPointer>
#include <QUuid>

#include <optional>

class ConversationStore;

// The sidebar's rows: one per conversation of the store, in the store's order. Follows the store
// live; never writes to it. Holds the store weakly: once it is gone the model is empty.
class ConversationListModel final : public QAbstractListModel
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ConversationListModel)

public:
    enum Role {
        IdRole = Qt::UserRole + 1, // QUuid
        DateTextRole,              // updatedAt as "MMM d, HH:mm", local time
        ContextRole,               // a search result's line of context (QString), else none
        ContextHitsRole,           // where the words are in it (QList<TextSearch::Range>)
        MessageIndexRole,          // the message the context is from (qsizetype), or -1
    };

    explicit ConversationListModel(ConversationStore *chats, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    // The row showing that conversation, or -1.
    int rowOf(const std::optional<QUuid> &id) const;

    // The one formatting of conversation dates, shared by every window. Main thread only.
    static QString dateText(double updatedAt);

private:
    QPointer<ConversationStore> m_chats;
};
