#pragma once

#include "platform/Pasteboard.h"

// The Wayland clipboard through wl-clipboard's clients, which speak the compositor's
// data-control protocol: a program without the keyboard focus may read and set the
// clipboard only that way (Qt's clipboard is refused there). wl-copy leaves a copy of
// itself behind to serve the text, so it outlives this program. Every call runs a
// client without blocking the event loop.
class WlClipboardPasteboard final : public Pasteboard
{
public:
    // available: the compositor offers data-control and both clients are installed.
    explicit WlClipboardPasteboard(bool available);

    QCoro::Task<std::optional<QString>> plainText() override;
    QCoro::Task<QStringList> types() override;
    QCoro::Task<> clear() override;
    QCoro::Task<> setPlainText(const QString& text) override;
    bool canWrite() const override { return m_available; }

private:
    bool m_available;
};
