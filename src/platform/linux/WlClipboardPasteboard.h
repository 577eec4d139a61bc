#pragma once

#include "platform/Pasteboard.h"

#include <memory>

class QProcess;

// The Wayland clipboard through wl-clipboard's clients, which speak the compositor's
// data-control protocol: a program without the keyboard focus may read and set the
// clipboard only that way (Qt's clipboard is refused there). wl-copy leaves a copy of
// itself behind to serve the text, so it outlives this program. Every call runs a
// client without blocking the event loop.
//
// A `wl-paste --watch` runs beside for as long as this object lives, telling it each
// time a new selection appears. So once this program has emptied the clipboard (the
// restore after a paste over an empty one), or found it empty when it started, it knows
// the clipboard stays empty until then, and does not ask: some compositors (KWin 5.27) never answer a read of an empty
// clipboard, and every paste would wait out the client's timeout.
class WlClipboardPasteboard final : public Pasteboard
{
public:
    // available: the compositor offers data-control and both clients are installed.
    explicit WlClipboardPasteboard(bool available);
    ~WlClipboardPasteboard() override;

    QCoro::Task<std::optional<QString>> plainText() override;
    QCoro::Task<QStringList> types() override;
    QCoro::Task<> clear() override;
    QCoro::Task<> setPlainText(const QString& text) override;
    bool canWrite() const override { return m_available; }

private:
    void watch();
    // Reads the clipboard once at start: empty (or no answer in time, as KWin gives for an
    // empty clipboard) with nothing copied meanwhile counts as known empty.
    void probe();

    bool m_available;
    std::unique_ptr<QProcess> m_watcher;
    std::unique_ptr<QProcess> m_probe;
    // Times this program changed the clipboard itself.
    quint64 m_writes = 0;
    // New selections the watcher has reported.
    quint64 m_changes = 0;
    // This program emptied the clipboard and no selection has appeared since.
    bool m_knownEmpty = false;
};
