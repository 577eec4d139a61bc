#pragma once

#include "platform/KeyEventSource.h"

#include <memory>

// A key event source that delivers what the test sends and remembers how it was
// driven. The counts live in a shared record so they outlast the source, which
// its owner destroys.
class FakeKeyEventSource final : public KeyEventSource
{
public:
    struct Record {
        int starts = 0;
        int stops = 0;
        bool fnReserved = false;
        QString preferredTrigger;
        NoticeHandler notice; // what the owner asked to be told, to tell it something
    };

    explicit FakeKeyEventSource(
        std::shared_ptr<Record> record, KeyEventSourceStatus answer = KeyEventSourceStatus::started)
        : m_record(std::move(record))
        , m_answer(answer)
    { }

    KeyEventSourceStatus start(Handler handler) override
    {
        ++m_record->starts;
        if (m_answer == KeyEventSourceStatus::started)
            m_handler = std::move(handler);
        return m_answer;
    }
    void stop() override
    {
        ++m_record->stops;
        m_handler = {};
    }
    bool canDrop() const override { return true; }
    void setFnKeyReserved(bool reserved) override { m_record->fnReserved = reserved; }
    void setPreferredTrigger(const QString& trigger) override { m_record->preferredTrigger = trigger; }
    void setNoticeHandler(NoticeHandler handler) override { m_record->notice = std::move(handler); }

    // Whether a handler is listening (start() succeeded and stop() has not come).
    bool listening() const { return static_cast<bool>(m_handler); }

    // Delivers one event as the system would; nothing (and pass) without a handler.
    KeyEventDisposition send(KeyEventType type, qint64 keyCode, quint64 flags)
    {
        if (!m_handler)
            return KeyEventDisposition::pass;
        return m_handler(KeyEvent { type, keyCode, flags });
    }

private:
    std::shared_ptr<Record> m_record;
    KeyEventSourceStatus m_answer;
    Handler m_handler;
};
