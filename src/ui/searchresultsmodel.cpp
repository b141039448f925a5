#include "ui/searchresultsmodel.h"

#include "ui/conversationlistmodel.h"

using namespace Qt::StringLiterals;

SearchResultsModel::SearchResultsModel(QObject *parent)
    : QAbstractListModel(parent)
{}

int SearchResultsModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_results.size());
}

QVariant SearchResultsModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_results.size())
        return {};
    const SearchResult &result = m_results.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
        return result.title;
    case Qt::AccessibleTextRole: {
        QString text = result.title + u", "_s + data(index, ConversationListModel::DateTextRole).toString();
        if (!result.context.isEmpty())
            text += u", "_s + result.context;
        return text;
    }
    case ConversationListModel::IdRole:
        return result.id;
    case ConversationListModel::DateTextRole: {
        QString &date = m_dateTexts[index.row()];
        if (date.isNull())
            date = ConversationListModel::dateText(result.updatedAt);
        return date;
    }
    case ConversationListModel::ContextRole:
        return result.context;
    case ConversationListModel::ContextHitsRole:
        return QVariant::fromValue(result.contextHits);
    case ConversationListModel::MessageIndexRole:
        return QVariant::fromValue(result.messageIndex);
    default:
        return {};
    }
}

void SearchResultsModel::setResults(const QList<SearchResult> &results)
{
    beginResetModel();
    m_results = results;
    m_dateTexts = QList<QString>(results.size());
    endResetModel();
}

void SearchResultsModel::appendResults(const QList<SearchResult> &results)
{
    if (results.isEmpty())
        return;
    beginInsertRows({}, int(m_results.size()), int(m_results.size() + results.size() - 1));
    m_results.append(results);
    m_dateTexts.resize(m_results.size());
    endInsertRows();
}

int SearchResultsModel::rowOf(const std::optional<QUuid> &id) const
{
    if (!id)
        return -1;
    for (qsizetype i = 0; i < m_results.size(); ++i) {
        if (m_results.at(i).id == *id)
            return int(i);
    }
    return -1;
}
