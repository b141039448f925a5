#pragma once

#include <QList>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

// A thread that writes one job at a time, in order, for the history and the provider writers.
// A job handed over while an older one still waits is folded into it (fold(newer, older) keeps
// what the newer one lacks), so the file always ends with the newest state. Each write's outcome
// waits to be taken by the owning thread, which notify (called on this thread after each write)
// tells to come and look.
//
// The thread starts at construction and, at destruction, writes what still waits before it stops:
// an owner whose write uses its own members declares this member last, so that it is gone first.
template<class Job, class Outcome>
class WriterThread final
{
public:
    WriterThread(std::function<Outcome(Job &&)> write, std::function<void(Job &, Job &&)> fold,
                 std::function<void()> notify, std::function<void()> onStart = {})
        : m_write(std::move(write))
        , m_fold(std::move(fold))
        , m_notify(std::move(notify))
        , m_thread([this, onStart = std::move(onStart)] {
            if (onStart)
                onStart();
            run();
        })
    {}
    ~WriterThread()
    {
        {
            std::lock_guard lock(m_mutex);
            m_stopping = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    WriterThread(const WriterThread &) = delete;
    WriterThread &operator=(const WriterThread &) = delete;

    // Hands a job over and returns at once.
    void submit(Job job)
    {
        {
            std::lock_guard lock(m_mutex);
            if (m_pending)
                m_fold(job, std::move(*m_pending));
            m_pending = std::move(job);
        }
        m_wake.notify_one();
    }
    // Blocks until every job handed over has been written or has failed.
    void waitForIdle()
    {
        std::unique_lock lock(m_mutex);
        m_idle.wait(lock, [this] { return !m_pending && !m_busy; });
    }
    // The outcomes not taken yet, oldest first.
    QList<Outcome> takeOutcomes()
    {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_outcomes, {});
    }

private:
    void run()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_pending || m_stopping; });
            if (!m_pending)
                return; // stopping, and nothing is left to write
            Job job = std::move(*m_pending);
            m_pending.reset();
            m_busy = true;
            lock.unlock();
            Outcome outcome = m_write(std::move(job));
            lock.lock();
            m_outcomes.append(std::move(outcome));
            m_busy = false;
            if (!m_pending)
                m_idle.notify_all();
            if (m_notify) {
                lock.unlock();
                m_notify();
                lock.lock();
            }
        }
    }

    const std::function<Outcome(Job &&)> m_write;
    const std::function<void(Job &, Job &&)> m_fold;
    const std::function<void()> m_notify;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_idle;
    std::optional<Job> m_pending;
    bool m_busy = false;
    bool m_stopping = false;
    QList<Outcome> m_outcomes;
    std::thread m_thread;
};
