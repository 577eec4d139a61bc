#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class QThreadPool;

// Runs the jobs posted to it one after another, in order, on a shared thread pool: one
// stream's decoding never runs on two threads at once, and many streams share few threads.
class SerialQueue : public std::enable_shared_from_this<SerialQueue>
{
public:
    explicit SerialQueue(QThreadPool& pool);
    void post(std::function<void()> job);

private:
    void drain();

    QThreadPool& m_pool;
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_jobs;
    bool m_scheduled = false;
};
