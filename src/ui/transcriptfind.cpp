#include "ui/transcriptfind.h"

#include "chat/chatviewmodel.h"
#include "render/inlinemarkdown.h"
#include "ui/backgroundpool.h"
#include "ui/codeblockview.h"
#include "ui/inlinetext.h"
#include "ui/markdowntextview.h"
#include "ui/messagebubble.h"
#include "ui/tableblockview.h"
#include "ui/transcriptview.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHash>
#include <QPointer>
#include <QScrollBar>
#include <QThreadPool>

#include <algorithm>
#include <tuple>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

using Kind = MarkdownText::Block::Kind;

QString shownInline(const QString &source)
{
    QString text;
    for (const InlineRun &run : InlineMarkdown::render(InlineText::shownPart(source)))
        text += run.text;
    return text;
}

// Code is drawn up to a number of lines, and each line up to a number of characters: what is not
// drawn becomes a character no typed word holds, so positions stay those of the code.
QString shownCode(const QString &code)
{
    if (code.size() <= CodeTextView::maxLineLayout)
        return code;
    QString shown = code;
    qsizetype line = 0;
    for (qsizetype start = 0; start < shown.size(); ++line) {
        qsizetype end = shown.indexOf(u'\n', start);
        if (end < 0)
            end = shown.size();
        if (line >= CodeTextView::maxShownLines) {
            shown.truncate(start);
            break;
        }
        for (qsizetype i = start + CodeTextView::maxLineLayout; i < end; ++i)
            shown[i] = QChar(u'\0');
        start = end + 1;
    }
    return shown;
}

} // namespace

TranscriptFind::TranscriptFind(ChatViewModel *chat, TranscriptArea *area, QObject *parent)
    : QObject(parent)
    , m_chat(chat)
    , m_area(area)
    , m_reading(std::make_shared<std::atomic<quint64>>(0))
{
    connect(m_chat, &ChatViewModel::messagesReset, this, [this] {
        m_cache.clear();
        // Another conversation: what is read for the one before is of no use.
        ++*m_reading;
        m_readInFlight = false;
        prepare();
        m_place = -1;
        m_currentMessage = -1;
        m_currentK = -1;
        recountAll();
    });
    connect(m_chat, &ChatViewModel::messageInserted, this, [this](qsizetype index) {
        if (index <= m_cache.size())
            m_cache.insert(index, Cached{});
        if (m_currentMessage >= index)
            ++m_currentMessage;
        if (m_place >= index)
            ++m_place;
        recountAll();
    });
    connect(m_chat, &ChatViewModel::messageRemoved, this, [this](qsizetype index) {
        if (index < m_cache.size())
            m_cache.removeAt(index);
        if (m_currentMessage == index)
            m_currentMessage = -1;
        else if (m_currentMessage > index)
            --m_currentMessage;
        if (m_place >= index)
            m_place = std::max<qsizetype>(0, m_place - 1);
        recountAll();
    });
    connect(m_chat, &ChatViewModel::messagesReplaced, this, [this](qsizetype index) {
        // Another version from index on: what was found there is looked for again.
        if (index < m_cache.size())
            m_cache.resize(index);
        if (m_currentMessage >= index) {
            m_currentMessage = -1;
            m_currentK = -1;
        }
        if (m_place >= index)
            m_place = -1;
        recountAll();
    });
    // Connected after the area's own reaction, so the marks go on the blocks it now shows.
    connect(m_chat, &ChatViewModel::messageChanged, this, &TranscriptFind::recountMessage);
    connect(m_area, &TranscriptArea::bubbleBuilt, this,
            [this](qsizetype index, MessageBubble *bubble) { applyTo(index, bubble); });
    prepare();
}

TranscriptFind::~TranscriptFind()
{
    ++*m_reading;
}

QList<TranscriptFind::Segment> TranscriptFind::shownSegments(const QList<MarkdownText::Block> &blocks)
{
    QList<Segment> segments;
    for (qsizetype b = 0; b < blocks.size(); ++b) {
        const MarkdownText::Block &block = blocks.at(b);
        switch (block.kind) {
        case Kind::Code:
            segments.append({int(b), 0, shownCode(block.code)});
            break;
        case Kind::Table: {
            // Only the cells drawn: as many per row as there are headers, in the rows shown.
            const qsizetype columns = block.headers.size();
            for (qsizetype c = 0; c < columns; ++c)
                segments.append({int(b), int(c), shownInline(block.headers.at(c))});
            const qsizetype rows = std::min(block.rows.size(), TableBlockView::shownRows(columns));
            for (qsizetype r = 0; r < rows; ++r) {
                const QStringList &row = block.rows.at(r);
                for (qsizetype c = 0; c < std::min(columns, row.size()); ++c)
                    segments.append({int(b), int((r + 1) * columns + c), shownInline(row.at(c))});
            }
            break;
        }
        default:
            segments.append({int(b), 0, shownInline(block.text)});
            break;
        }
    }
    return segments;
}

bool TranscriptFind::isCurrent(qsizetype message) const
{
    if (message >= m_cache.size())
        return false;
    const QString &content = m_chat->messages().at(message).content;
    const QString &read = m_cache.at(message).content;
    // Shared text is the same text: the usual case, checked without reading it.
    return !read.isNull() &&
           ((read.constData() == content.constData() && read.size() == content.size()) || read == content);
}

const QList<TranscriptFind::Segment> &TranscriptFind::foldedSegments(qsizetype message)
{
    if (m_cache.size() != m_chat->messages().size())
        m_cache.resize(m_chat->messages().size());
    const QString &content = m_chat->messages().at(message).content;
    Cached &cached = m_cache[message];
    if (!isCurrent(message)) {
        cached.content = content.isNull() ? u""_s : content;
        // A bubble on screen has parsed the text already; the others are parsed as they would be.
        const MessageBubble *bubble = m_area->bubbleAt(message);
        const bool shown = bubble && bubble->markdownView()->text() == content;
        cached.folded =
            shownSegments(shown ? bubble->markdownView()->blocks() : MarkdownTextView::shownBlocks(cached.content));
        for (Segment &segment : cached.folded)
            TextSearch::foldInto(segment.text, segment.text);
    }
    return cached.folded;
}

void TranscriptFind::hitsIn(qsizetype message, QList<Hit> &hits)
{
    // Gathered in one buffer kept from message to message, then copied at their exact size: a
    // first letter finds tens of thousands, and lists grown hit by hit would be moved many times.
    m_gathered.clear();
    for (const Segment &segment : foldedSegments(message)) {
        m_query.forEachHit(segment.text, [&](const TextSearch::Range &range) {
            m_gathered.push_back({segment.block, segment.cell, range});
        });
    }
    hits = QList<Hit>(m_gathered.cbegin(), m_gathered.cend());
}

qsizetype TranscriptFind::countIn(qsizetype message)
{
    qsizetype count = 0;
    for (const Segment &segment : foldedSegments(message))
        m_query.forEachHit(segment.text, [&](const TextSearch::Range &) { ++count; });
    return count;
}

const QList<TranscriptFind::Hit> &TranscriptFind::hitsOf(qsizetype message)
{
    if (!m_listed.at(message)) {
        hitsIn(message, m_hits[message]);
        m_listed[message] = true;
    }
    return m_hits.at(message);
}

void TranscriptFind::setQuery(const QString &typed, qsizetype fromMessage)
{
    const TextSearch::Query before = std::exchange(m_query, TextSearch::Query(typed));
    // Typing on at the end of a word narrows what it finds: each new word holds one from before.
    const bool narrowing = !before.isEmpty() && !m_query.isEmpty() && m_counts.size() == m_chat->messages().size() &&
                           std::all_of(m_query.words().cbegin(), m_query.words().cend(), [&](const QString &word) {
                               return std::any_of(before.words().cbegin(), before.words().cend(),
                                                  [&](const QString &old) { return word.contains(old); });
                           });
    // Refining the words keeps the place: from the current hit's message, else from the top of
    // what is shown, down.
    qsizetype from = fromMessage >= 0 ? fromMessage : m_place;
    m_currentMessage = -1;
    m_currentK = -1;
    recountAll(narrowing);
    if (m_query.isEmpty())
        return;
    if (from < 0) {
        // The first words typed pick a hit the reader can see, where it is.
        if (const auto inSight = firstHitInSight())
            return setCurrent(inSight->first, inSight->second, Reveal::UnlessInSight);
        from = 0;
        const int top = m_area->verticalScrollBar()->value();
        while (from + 1 < m_area->messageCount() && m_area->rowTop(from + 1) <= top)
            ++from;
    }
    showFirstHitFrom(from);
}

void TranscriptFind::showFirstHitFrom(qsizetype message)
{
    const auto notBefore = [](const Hit &hit, const Hit &place) {
        return std::tuple(hit.block, hit.cell, hit.range.start) >=
               std::tuple(place.block, place.cell, place.range.start);
    };
    const qsizetype n = m_counts.size();
    for (qsizetype step = 0; step < n; ++step) {
        const qsizetype i = (std::max<qsizetype>(0, message) + step) % n;
        if (m_counts.at(i) == 0)
            continue;
        const QList<Hit> &hits = hitsOf(i);
        // In the message of the last place, the first hit from that place on.
        qsizetype k = 0;
        if (step == 0 && i == m_place) {
            while (k < hits.size() && !notBefore(hits.at(k), m_placeHit))
                ++k;
        }
        if (k < hits.size())
            return setCurrent(i, k, Reveal::UnlessInSight);
    }
    // Only hits before the place, in its own message: wrap to them.
    if (m_count > 0 && message >= 0 && message < n && m_counts.at(message) > 0)
        return setCurrent(message, 0, Reveal::UnlessInSight);
    setCurrent(-1, -1, Reveal::No);
}

std::optional<std::pair<qsizetype, qsizetype>> TranscriptFind::firstHitInSight()
{
    const QWidget *viewport = m_area->viewport();
    const int top = m_area->verticalScrollBar()->value();
    const qsizetype n = std::min(m_area->messageCount(), m_counts.size());
    for (qsizetype i = 0; i < n && m_area->rowTop(i) < top + viewport->height(); ++i) {
        const MessageBubble *bubble = m_area->bubbleAt(i);
        if (!bubble || m_counts.at(i) == 0 || m_area->rowTop(i) + bubble->height() <= top)
            continue;
        const QList<MarkdownBlockView *> &views = bubble->markdownView()->blockViews();
        const QList<Hit> &hits = hitsOf(i);
        for (qsizetype k = 0; k < hits.size(); ++k) {
            if (hits.at(k).block >= views.size())
                continue;
            const int y = views.at(hits.at(k).block)->mapTo(viewport, QPoint(0, 0)).y();
            if (y >= viewport->height())
                return std::nullopt;
            if (y >= 0)
                return std::pair(i, k);
        }
    }
    return std::nullopt;
}

QList<TranscriptFind::Segment> TranscriptFind::readFolded(const QString &content)
{
    // As a streamed reply is parsed: without the block cache, which is the main thread's.
    QList<Segment> segments = shownSegments(MarkdownTextView::shownBlocks(content, true));
    for (Segment &segment : segments)
        TextSearch::foldInto(segment.text, segment.text);
    return segments;
}

void TranscriptFind::prepare()
{
    if (m_readInFlight)
        return;
    const QList<ChatMessage> &messages = m_chat->messages();
    QList<qsizetype> indices;
    QList<QString> contents;
    for (qsizetype i = 0; i < messages.size(); ++i) {
        if (!isCurrent(i)) {
            indices.append(i);
            contents.append(messages.at(i).content.isNull() ? u""_s : messages.at(i).content);
        }
    }
    if (indices.isEmpty())
        return;
    m_readInFlight = true;
    const quint64 generation = ++*m_reading;
    backgroundPool()->start(
        [self = QPointer<TranscriptFind>(this), reading = m_reading, generation, indices, contents] {
            // Handed over in steps, so that what is read is of use before the whole is.
            constexpr qint64 stepMs = 20;
            QList<qsizetype> done;
            QList<Cached> read;
            QElapsedTimer sinceStep;
            sinceStep.start();
            for (qsizetype k = 0; k < contents.size(); ++k) {
                if (reading->load() != generation)
                    return;
                done.append(indices.at(k));
                read.append(Cached{contents.at(k), readFolded(contents.at(k))});
                const bool last = k + 1 == contents.size();
                if (last || sinceStep.elapsed() >= stepMs) {
                    // Posted to the application, not to the finder, which the main thread may be deleting.
                    QMetaObject::invokeMethod(
                        QCoreApplication::instance(),
                        [self, generation, done, read, last] {
                            if (self)
                                self->takePrepared(generation, done, read, last);
                        },
                        Qt::QueuedConnection);
                    done.clear();
                    read.clear();
                    sinceStep.restart();
                }
            }
        });
}

void TranscriptFind::takePrepared(quint64 generation, const QList<qsizetype> &messages, const QList<Cached> &read,
                                  bool last)
{
    if (generation != m_reading->load())
        return;
    if (last)
        m_readInFlight = false;
    const qsizetype n = m_chat->messages().size();
    if (m_cache.size() != n)
        m_cache.resize(n);
    for (qsizetype k = 0; k < messages.size(); ++k) {
        const qsizetype i = messages.at(k);
        // A message changed or moved since it was read is read again when it is needed.
        if (i >= n || isCurrent(i))
            continue;
        const QString &content = m_chat->messages().at(i).content;
        const QString &readContent = read.at(k).content;
        if (readContent.constData() == content.constData() || readContent == content)
            m_cache[i] = read.at(k);
    }
}

bool TranscriptFind::isPrepared() const
{
    for (qsizetype i = 0; i < m_chat->messages().size(); ++i) {
        if (!isCurrent(i))
            return false;
    }
    return true;
}

void TranscriptFind::clear()
{
    m_query = TextSearch::Query();
    m_place = -1;
    m_currentMessage = -1;
    m_currentK = -1;
    recountAll();
}

void TranscriptFind::next()
{
    if (m_count == 0)
        return;
    if (m_currentMessage >= 0 && m_currentK + 1 < m_counts.at(m_currentMessage))
        return setCurrent(m_currentMessage, m_currentK + 1, Reveal::Comfortably);
    const qsizetype n = m_counts.size();
    const qsizetype from = m_currentMessage < 0 ? n - 1 : m_currentMessage;
    for (qsizetype step = 1; step <= n; ++step) {
        const qsizetype i = (from + step) % n;
        if (m_counts.at(i) > 0)
            return setCurrent(i, 0, Reveal::Comfortably);
    }
}

void TranscriptFind::previous()
{
    if (m_count == 0)
        return;
    if (m_currentMessage >= 0 && m_currentK > 0)
        return setCurrent(m_currentMessage, m_currentK - 1, Reveal::Comfortably);
    const qsizetype n = m_counts.size();
    const qsizetype from = m_currentMessage < 0 ? 0 : m_currentMessage;
    for (qsizetype step = 1; step <= n; ++step) {
        const qsizetype i = (from - step + n) % n;
        if (m_counts.at(i) > 0)
            return setCurrent(i, m_counts.at(i) - 1, Reveal::Comfortably);
    }
}

qsizetype TranscriptFind::currentIndex() const
{
    if (m_currentMessage < 0)
        return -1;
    qsizetype before = 0;
    for (qsizetype i = 0; i < m_currentMessage; ++i)
        before += m_counts.at(i);
    return before + m_currentK;
}

QString TranscriptFind::statusText() const
{
    if (m_query.isEmpty())
        return {};
    if (m_count == 0)
        return tr("No results");
    if (m_currentMessage < 0)
        return m_count == 1 ? tr("1 match") : tr("%L1 matches").arg(m_count);
    return tr("%L1 of %L2").arg(currentIndex() + 1).arg(m_count);
}

void TranscriptFind::recountAll(bool narrowing)
{
    const qsizetype n = m_chat->messages().size();
    // Without words the room goes; otherwise each message's list keeps it for the next words.
    if (m_counts.size() != n || m_query.isEmpty()) {
        m_counts = QList<qsizetype>(n);
        m_hits = QList<QList<Hit>>(n);
        m_listed = QList<bool>(n);
    }
    m_count = 0;
    if (!m_query.isEmpty()) {
        for (qsizetype i = 0; i < n; ++i) {
            if (narrowing && m_counts.at(i) == 0)
                continue;
            m_counts[i] = countIn(i);
            m_listed[i] = false;
            if (!m_hits.at(i).isEmpty())
                m_hits[i] = {};
            m_count += m_counts.at(i);
        }
    }
    if (m_currentMessage >= n || (m_currentMessage >= 0 && m_currentK >= m_counts.at(m_currentMessage))) {
        m_currentMessage = -1;
        m_currentK = -1;
    }
    applyAll();
    emit resultsChanged();
}

void TranscriptFind::recountMessage(qsizetype message)
{
    if (m_query.isEmpty() || message < 0 || message >= m_chat->messages().size())
        return;
    if (m_counts.size() != m_chat->messages().size())
        return recountAll();
    hitsIn(message, m_hits[message]);
    m_listed[message] = true;
    m_count += m_hits.at(message).size() - m_counts.at(message);
    m_counts[message] = m_hits.at(message).size();
    if (m_currentMessage == message && m_currentK >= m_counts.at(message)) {
        m_currentMessage = -1;
        m_currentK = -1;
    }
    // Nothing moves: the view follows the reply by its own rules while the count follows the text.
    // A first hit in a reply becomes current where it is.
    if (m_currentMessage < 0 && m_count > 0 && m_count == m_counts.at(message)) {
        m_currentMessage = m_place = message;
        m_currentK = 0;
        m_placeHit = m_hits.at(message).first();
    }
    applyTo(message, m_area->bubbleAt(message));
    emit resultsChanged();
}

void TranscriptFind::setCurrent(qsizetype message, qsizetype k, Reveal how)
{
    const qsizetype before = m_currentMessage;
    m_currentMessage = message;
    m_currentK = k;
    if (message >= 0) {
        m_place = message;
        m_placeHit = hitsOf(message).at(k);
    }
    if (before >= 0 && before != message && before < m_counts.size())
        applyTo(before, m_area->bubbleAt(before));
    if (message >= 0)
        applyTo(message, m_area->bubbleAt(message));
    if (how != Reveal::No)
        reveal(how);
    emit resultsChanged();
}

void TranscriptFind::applyTo(qsizetype message, MessageBubble *bubble)
{
    if (!bubble || message < 0)
        return;
    QHash<int, QList<FindHit>> byBlock;
    if (message < m_counts.size() && m_counts.at(message) > 0) {
        const QList<Hit> &hits = hitsOf(message);
        for (qsizetype k = 0; k < hits.size(); ++k) {
            const Hit &hit = hits.at(k);
            byBlock[hit.block].append({hit.cell, hit.range, message == m_currentMessage && k == m_currentK});
        }
    }
    bubble->markdownView()->setFindHits(byBlock);
}

void TranscriptFind::applyAll()
{
    // Without words and with nothing marked there is nothing to take off.
    if (m_count == 0 && !m_marked)
        return;
    for (qsizetype i = 0; i < m_area->messageCount(); ++i) {
        if (MessageBubble *bubble = m_area->bubbleAt(i))
            applyTo(i, bubble);
    }
    m_marked = m_count > 0;
}

void TranscriptFind::reveal(Reveal how)
{
    if (m_currentMessage < 0 || m_currentMessage >= m_area->messageCount())
        return;
    QScrollBar *bar = m_area->verticalScrollBar();
    const int visible = m_area->viewport()->height();
    // First the message's place, which builds its bubble; then the hit's own line inside it.
    const int messageTop = m_area->rowTop(m_currentMessage);
    if (!m_area->bubbleAt(m_currentMessage) || messageTop > bar->value() + visible)
        bar->setValue(messageTop - visible / 3);
    MessageBubble *bubble = m_area->bubbleAt(m_currentMessage);
    if (!bubble)
        return;
    applyTo(m_currentMessage, bubble);
    const Hit &hit = hitsOf(m_currentMessage).at(m_currentK);
    const QList<MarkdownBlockView *> &views = bubble->markdownView()->blockViews();
    if (hit.block >= views.size())
        return;
    MarkdownBlockView *view = views.at(hit.block);
    QRect rect = view->currentHitRect();
    if (rect.isEmpty())
        rect = QRect(0, 0, view->width(), std::min(view->height(), 20));
    const QPoint at = view->mapTo(m_area->viewport(), rect.topLeft());
    // A hit already comfortably in view stays where it is; otherwise it comes to a third down.
    // While words are typed, any hit in sight stays: the view does not move under the reader.
    const int margin = how == Reveal::UnlessInSight ? 0 : visible / 8;
    if (at.y() < margin || at.y() + rect.height() > visible - margin)
        bar->setValue(bar->value() + at.y() - visible / 3);
}
