#pragma once

#include "model/conversation.h"
#include "model/textsearch.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

#include <atomic>
#include <memory>

// One conversation that holds every word of a search.
struct SearchResult
{
    QUuid id;
    QString title;
    double updatedAt = 0;
    // One line of the first message that holds a word, around that word (empty when only the title
    // holds the words), and where the words are in it.
    QString context;
    QList<TextSearch::Range> contextHits;
    // That message's position in the conversation, or -1.
    qsizetype messageIndex = -1;
};

// Searches the history for conversations whose title or messages hold every word of a query, off
// the main thread. It reads the conversations as the store holds them: messages still in their
// stored form are searched in those bytes, without decoding them into the list (which would keep
// the decoded text for good).
//
// One search runs at a time: start() cancels the one in flight, whose results are never delivered.
// The conversations are searched on every core but one, left to the window, and on that one too
// while the window leaves it idle; the results arrive in the order of the list given, in batches,
// the first as soon as there are enough to fill the top of a list.
class QThreadPool;

class HistorySearch final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(HistorySearch)

public:
    explicit HistorySearch(QObject *parent = nullptr);
    // Cancels the search in flight and waits for its workers to let go of the snapshot.
    ~HistorySearch() override;

    // Starts searching a snapshot of the list (copies share the stored bytes). An empty query or
    // list finishes at once with nothing found.
    void start(const QList<Conversation> &conversations, const QString &typed);
    // Drops the search in flight; nothing more is delivered for it.
    void cancel();
    bool isRunning() const { return m_running; }

    // The search of one conversation, as the worker runs it (for tests and benchmarks).
    static std::optional<SearchResult> searchConversation(const Conversation &conversation,
                                                          const TextSearch::Query &query);

signals:
    // Emitted with the next results of the current search, in list order.
    void resultsFound(const QList<SearchResult> &results);
    // Emitted once the current search has looked at every conversation.
    void finished();

private:
    struct Job;
    void deliver(quint64 generation, const QList<SearchResult> &results, bool last);

    std::shared_ptr<std::atomic<quint64>> m_generation;
    QThreadPool *m_pool;
    QThreadPool *m_sparePool;
    int m_spares = 0;
    bool m_running = false;
};
