#pragma once

#include "model/textsearch.h"
#include "render/markdowntext.h"

#include <QList>
#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

class ChatViewModel;
class MessageBubble;
class TranscriptArea;

// The find bar's work in one window's transcript: finds the typed words in the messages as they
// are shown (the text of paragraphs, headings, list items, quotes, code and the table cells that
// are drawn; no Markdown syntax, no link addresses), marks them in the bubbles that exist and in
// those built later, and brings the current one into view. A message that changes (a streamed
// reply) is counted again without moving the view.
//
// Each message's shown text is folded once and kept until the message changes, so a keystroke
// costs one pass over the text and no Markdown parsing. A conversation shown is read ahead off the
// main thread, so that a word typed as soon as the bar opens is found as quickly as the next.
//
// Reads the view model and drives the transcript area; both must outlive it.
class TranscriptFind final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(TranscriptFind)

public:
    // One found word: in a block of the message's shown blocks, in a cell of a table (its drawn
    // cells counted row by row, the header row first; 0 elsewhere), at range of that text.
    struct Hit
    {
        int block = 0;
        int cell = 0;
        TextSearch::Range range;
    };
    // A piece of a message's shown text.
    struct Segment
    {
        int block = 0;
        int cell = 0;
        QString text;
    };

    TranscriptFind(ChatViewModel *chat, TranscriptArea *area, QObject *parent = nullptr);
    // Drops the reading in flight; its worker stops after the message it is reading.
    ~TranscriptFind() override;

    // Finds what was typed and brings the current hit into view: the first one in fromMessage or
    // after it, or with fromMessage -1 from the current hit's message, else from the top of the
    // view, down; wrapping to the first hit.
    void setQuery(const QString &typed, qsizetype fromMessage = -1);
    // Reads the shown text of the messages not read yet, off the main thread. Done on its own for
    // each conversation shown.
    void prepare();
    // Whether every message's shown text is read.
    bool isPrepared() const;
    // Drops the words and every mark.
    void clear();
    // Move to the next or previous hit, wrapping around, and bring it into view.
    void next();
    void previous();

    qsizetype count() const { return m_count; }
    // The current hit's place among all (0-based), or -1 when there is none.
    qsizetype currentIndex() const;
    // "3 of 12", "12 matches" while none is current, "No results", or nothing without words.
    QString statusText() const;

    // The text the blocks show, piece by piece in reading order, folded or not.
    static QList<Segment> shownSegments(const QList<MarkdownText::Block> &blocks);

signals:
    // Emitted when the count or the current hit changes.
    void resultsChanged();

private:
    struct Cached
    {
        QString content;
        QList<Segment> folded;
    };

    // A message's shown text, folded: what was read ahead, else read now.
    const QList<Segment> &foldedSegments(qsizetype message);
    bool isCurrent(qsizetype message) const;
    static QList<Segment> readFolded(const QString &content);
    void takePrepared(quint64 generation, const QList<qsizetype> &messages, const QList<Cached> &read, bool last);
    // The message's hits of the words, in place of what hits held.
    void hitsIn(qsizetype message, QList<Hit> &hits);
    // How many hits of the words the message holds, without listing them.
    qsizetype countIn(qsizetype message);
    // The message's hits, listed when first asked for: a first letter counts tens of thousands,
    // and only the messages shown or stepped to need their list.
    const QList<Hit> &hitsOf(qsizetype message);
    // Counts every message again; with narrowing, only those that held a hit of the words before,
    // which every new word holds one of: the others cannot hold any now.
    void recountAll(bool narrowing = false);
    void recountMessage(qsizetype message);
    void showFirstHitFrom(qsizetype message);
    // The first hit drawn at the top of the view or below it, in a block that starts in sight.
    std::optional<std::pair<qsizetype, qsizetype>> firstHitInSight();
    // How the current hit is brought into view: left where it is when it is in sight (as words
    // are typed), or also moved off the view's edges (stepping from hit to hit).
    enum class Reveal {
        No,
        UnlessInSight,
        Comfortably,
    };
    void setCurrent(qsizetype message, qsizetype k, Reveal how);
    void applyTo(qsizetype message, MessageBubble *bubble);
    void applyAll();
    void reveal(Reveal how);

    ChatViewModel *m_chat;
    TranscriptArea *m_area;
    TextSearch::Query m_query;
    QList<Cached> m_cache;       // by message index
    QList<qsizetype> m_counts;   // by message index
    QList<QList<Hit>> m_hits;    // by message index, for those listed
    QList<bool> m_listed;        // whether m_hits holds the message's hits
    std::vector<Hit> m_gathered; // one message's hits as they are found
    qsizetype m_count = 0;
    qsizetype m_currentMessage = -1;
    qsizetype m_currentK = -1; // index into m_hits[m_currentMessage]
    // The last current hit, kept while the words find nothing: refined words go on from there.
    qsizetype m_place = -1;
    Hit m_placeHit;
    bool m_marked = false; // whether any bubble may carry marks
    // Reading ahead: the generation of the read in flight, counted up to drop what an earlier one
    // still delivers; shared with its worker, which stops once it changes.
    std::shared_ptr<std::atomic<quint64>> m_reading;
    bool m_readInFlight = false;
};
