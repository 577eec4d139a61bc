#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QString>

#include <QCoroTask>

#include <chrono>
#include <memory>
#include <optional>

// Sends a finished transcript to the backend's clean-up ("/cleanup") with the user's
// dictionary, and gives back the polished text. Every failure (signed out, refresh
// failed, network error, a reply without a "text") gives nothing; the caller falls
// back to the raw transcript. Nothing is logged.
//
// One at a time: the service lives on the main thread and its coroutines only
// interleave where they wait (for the token or for the network), so its own code
// never runs side by side with itself. It shares nothing with RewriteService.
class CleanupService : public QObject
{
    Q_OBJECT
public:
    static constexpr std::chrono::milliseconds defaultTimeout { 10'000 };

    explicit CleanupService(std::chrono::milliseconds timeout = defaultTimeout, QObject* parent = nullptr);
    // Requests still open are aborted, so whoever awaits them gets nothing rather than waiting for ever.
    ~CleanupService() override;

    // The instance the program uses, created on first use on the main thread.
    static CleanupService& shared();
    // Replaces the shared instance (tests); null makes the next shared() create a new one.
    static void resetShared(std::unique_ptr<CleanupService> service = nullptr);

    // The cleaned-up text, or nothing. Never throws.
    QCoro::Task<std::optional<QString>> cleanup(QString text);

private:
    QNetworkAccessManager m_network;
    std::chrono::milliseconds m_timeout;
};
