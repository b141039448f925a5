#pragma once

#include <QHash>
#include <QString>

// The memo cache shared by the block parser and the highlighter: a dictionary keyed by the whole
// input. There is no per-entry ageing; a miss that finds more than 200 entries empties it
// completely, so it never holds more than 201. Main thread only: it has no lock.
template<typename Value>
class MemoCache final
{
public:
    static constexpr qsizetype clearAbove = 200;

    const Value *find(const QString &key) const
    {
        const auto it = m_entries.constFind(key);
        return it == m_entries.constEnd() ? nullptr : &it.value();
    }

    // Stores the result of a miss, clearing wholesale first when the cache is over its limit.
    const Value &store(const QString &key, Value value)
    {
        if (m_entries.size() > clearAbove)
            m_entries.clear();
        return m_entries.insert(key, std::move(value)).value();
    }

    qsizetype size() const { return m_entries.size(); }
    void clear() { m_entries.clear(); }

private:
    QHash<QString, Value> m_entries;
};
