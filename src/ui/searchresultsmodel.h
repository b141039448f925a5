#pragma once

#include "storage/historysearch.h"

#include <QAbstractListModel>
#include <QUuid>

#include <optional>

// The sidebar's rows while a search is shown: one per conversation found, in the history's order,
// each with its line of context. Uses the roles of ConversationListModel, so one delegate draws
// both lists.
class SearchResultsModel final : public QAbstractListModel
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SearchResultsModel)

public:
    explicit SearchResultsModel(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    // Replaces every row.
    void setResults(const QList<SearchResult> &results);
    // Adds rows at the end.
    void appendResults(const QList<SearchResult> &results);
    // The row showing that conversation, or -1.
    int rowOf(const std::optional<QUuid> &id) const;
    const QList<SearchResult> &results() const { return m_results; }

private:
    QList<SearchResult> m_results;
    // Each row's date as shown, made when first asked for: a local time costs microseconds to
    // work out, and a repaint while results arrive asks for every row on screen again.
    mutable QList<QString> m_dateTexts;
};
