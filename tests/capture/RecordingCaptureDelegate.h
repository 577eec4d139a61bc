#pragma once

#include "dictation/AudioCaptureManager.h"

#include <QStringList>

#include <mutex>
#include <thread>
#include <vector>

// Keeps every call it gets, with the thread it came on.
class RecordingCaptureDelegate final : public AudioCaptureDelegate
{
public:
    void audioCaptureDidReceive(Pcm16Buffer pcmBuffer) override
    {
        const std::lock_guard lock(m_mutex);
        m_buffers.push_back(std::move(pcmBuffer));
        m_threads.push_back(std::this_thread::get_id());
    }
    void audioCaptureDidFail(const QString& error) override
    {
        const std::lock_guard lock(m_mutex);
        m_failures.append(error);
        m_threads.push_back(std::this_thread::get_id());
    }

    void audioCaptureWasLost(const QString& reason) override
    {
        const std::lock_guard lock(m_mutex);
        m_losses.append(reason);
        m_threads.push_back(std::this_thread::get_id());
    }

    std::vector<Pcm16Buffer> buffers() const
    {
        const std::lock_guard lock(m_mutex);
        return m_buffers;
    }
    QStringList failures() const
    {
        const std::lock_guard lock(m_mutex);
        return m_failures;
    }
    QStringList losses() const
    {
        const std::lock_guard lock(m_mutex);
        return m_losses;
    }
    std::vector<std::thread::id> threads() const
    {
        const std::lock_guard lock(m_mutex);
        return m_threads;
    }
    size_t calls() const
    {
        const std::lock_guard lock(m_mutex);
        return m_threads.size();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Pcm16Buffer> m_buffers;
    QStringList m_failures;
    QStringList m_losses;
    std::vector<std::thread::id> m_threads;
};
