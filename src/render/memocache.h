#pragma once

#include <QHash>
#include <QString>

// The memo cache shared by the block parser and the highlighter: a dictionary keyed by the whole
// input. There is no per-entry ageing; a miss that finds more than 200 entries, or entries whose
// bytes and the new one's would pass 2 MB, empties it completely first. So it never holds more
// than 201 entries, nor more than 2 MB unless its one entry alone is larger: a reply that grows
// by a few characters per redraw leaves a trail of near-copies of itself, and 201 of those of a
// long reply would be gigabytes. The budget is small because a miss is cheap (a long reply
// parses in a tenth of a millisecond): the cache is there to make redraws of unchanged texts
// free, not to keep a reply's history. Main thread only: it has no lock.
template<typename Value>
class MemoCache final
{
public:
    static constexpr qsizetype clearAbove = 200;
    static constexpr qsizetype byteLimit = 2 * 1024 * 1024;

    const Value *find(const QString &key) const
    {
        const auto it = m_entries.constFind(key);
        return it == m_entries.constEnd() ? nullptr : &it.value();
    }

    // Stores the result of a miss, clearing wholesale first when the cache is over a limit.
    // valueBytes is what the value holds in memory, roughly; the key is counted here.
    const Value &store(const QString &key, Value value, qsizetype valueBytes)
    {
        const qsizetype bytes = key.size() * qsizetype(sizeof(QChar)) + valueBytes;
        if (m_entries.size() > clearAbove || m_bytes + bytes > byteLimit)
            clear();
        m_bytes += bytes;
        return m_entries.insert(key, std::move(value)).value();
    }

    qsizetype size() const { return m_entries.size(); }
    qsizetype bytes() const { return m_bytes; }
    void clear()
    {
        m_entries.clear();
        m_bytes = 0;
    }

private:
    QHash<QString, Value> m_entries;
    qsizetype m_bytes = 0;
};
