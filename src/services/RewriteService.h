#pragma once

#include "services/Tone.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QString>

#include <QCoroTask>

#include <chrono>
#include <memory>
#include <optional>

// Sends a finished transcript and the tone the user picked to the backend's rewrite
// ("/rewrite") with the user's dictionary, and gives back the rewritten text. Every
// failure (signed out, refresh failed, network error, a 403, a reply without a
// "text") gives nothing; the caller falls back to the raw transcript. Nothing is logged.
//
// One at a time: the service lives on the main thread and its coroutines only
// interleave where they wait (for the token or for the network), so its own code
// never runs side by side with itself. It shares nothing with CleanupService, so a
// slow rewrite never holds up a clean-up.
class RewriteService : public QObject
{
    Q_OBJECT
public:
    // Longer than the clean-up's: rewriting in a tone is the slower job on the backend.
    static constexpr std::chrono::milliseconds defaultTimeout { 15'000 };

    explicit RewriteService(std::chrono::milliseconds timeout = defaultTimeout, QObject* parent = nullptr);
    // Requests still open are aborted, so whoever awaits them gets nothing rather than waiting for ever.
    ~RewriteService() override;

    // The instance the program uses, created on first use on the main thread.
    static RewriteService& shared();
    // Replaces the shared instance (tests); null makes the next shared() create a new one.
    static void resetShared(std::unique_ptr<RewriteService> service = nullptr);

    // The text rewritten in `tone`, or nothing. Never throws.
    QCoro::Task<std::optional<QString>> rewrite(QString text, Tone tone);

private:
    QNetworkAccessManager m_network;
    std::chrono::milliseconds m_timeout;
};
