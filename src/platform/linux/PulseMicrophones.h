#pragma once

#include "platform/Microphones.h"

#include <optional>

// The sound server's sources through libpulse (PipeWire speaks it too). Each query
// runs on a pool thread with its own short-lived connection and main loop, and
// resolves its future from there.
class PulseMicrophones final : public Microphones
{
public:
    explicit PulseMicrophones(int timeoutMs);

    QFuture<QList<Microphone>> list() override;
    QFuture<bool> permission() override;
    QFuture<bool> requestPermission() override;

    // The sources that are not monitors, in the server's order; nothing when the
    // server cannot be reached or does not answer within timeoutMs. Blocks.
    static std::optional<QList<Microphone>> querySources(int timeoutMs);
    // Whether the default source opens for recording. Blocks up to about 2 × timeoutMs.
    static bool defaultSourceOpens(int timeoutMs);

private:
    int m_timeoutMs;
};
