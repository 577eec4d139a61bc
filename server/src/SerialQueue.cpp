#include "SerialQueue.h"

#include <QThreadPool>

namespace {

// After this many jobs a queue steps back into the pool's line, so that one busy stream
// cannot keep a thread to itself while other streams wait.
constexpr int jobsPerTurn = 8;

} // namespace

SerialQueue::SerialQueue(QThreadPool& pool)
    : m_pool(pool)
{ }

void SerialQueue::post(std::function<void()> job)
{
    bool schedule = false;
    {
        const std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
        if (!m_scheduled) {
            m_scheduled = true;
            schedule = true;
        }
    }
    if (schedule)
        m_pool.start([self = shared_from_this()] { self->drain(); });
}

void SerialQueue::drain()
{
    for (int done = 0; done < jobsPerTurn; ++done) {
        std::function<void()> job;
        {
            const std::lock_guard lock(m_mutex);
            if (m_jobs.empty()) {
                m_scheduled = false;
                return;
            }
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        job();
    }
    m_pool.start([self = shared_from_this()] { self->drain(); });
}
