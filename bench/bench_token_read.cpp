// What reading the access token costs, where every request asks for it first: the
// round trip of validAccessToken() and loadAsync() for a token that is far from
// expiring (the store is asked on the keychain thread), how long each call holds the
// GUI thread before it hands back its task, and the blocking load() for comparison;
// against the Secret Service and against the private-file fallback.
// Needs the desktop session's keyring:
//   scripts/desktop-session.sh --no-sound --no-a11y -- build/release/bin/bench_token_read [reads]

#include "platform/SecretStore.h"
#include "services/KeychainHelper.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

QString tokenValidForAnHour()
{
    const QJsonObject payload { { u"exp"_s, double(QDateTime::currentSecsSinceEpoch() + 3600) } };
    const QByteArray encoded = QJsonDocument(payload)
                                   .toJson(QJsonDocument::Compact)
                                   .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
    return u"eyJhbGciOiJIUzI1NiJ9."_s + QString::fromLatin1(encoded) + u".signature"_s;
}

void report(const char* what, const char* backend, int reads, const std::function<bool()>& read)
{
    std::vector<double> ms;
    ms.reserve(size_t(reads));
    int failures = 0;
    for (int i = 0; i < reads; ++i) {
        QElapsedTimer timer;
        timer.start();
        if (!read())
            ++failures;
        ms.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    const auto at = [&ms](double q) { return ms[std::min(ms.size() - 1, size_t(q * double(ms.size())))]; };
    std::printf("%-18s %-15s %d reads: p50 %.3f ms, p95 %.3f ms, max %.3f ms%s\n", what, backend, reads, at(0.5),
        at(0.95), ms.back(), failures ? " (SOME READS FAILED)" : "");
}

void measure(const char* backend, int reads)
{
    const QString token = tokenValidForAnHour();
    KeychainHelper::save(KeychainHelper::accessTokenKey, token);
    report("load() (blocking)", backend, reads,
        [&] { return KeychainHelper::load(KeychainHelper::accessTokenKey) == token; });
    report("loadAsync()", backend, reads,
        [&] { return QCoro::waitFor(KeychainHelper::loadAsync(KeychainHelper::accessTokenKey)).value == token; });
    report("validAccessToken()", backend, reads,
        [&] { return QCoro::waitFor(KeychainHelper::validAccessToken()) == std::optional<QString>(token); });
    // The part of a call the GUI thread waits for: up to the task's first suspension.
    std::vector<QCoro::Task<std::optional<QString>>> pending;
    pending.reserve(size_t(reads));
    report("GUI thread held", backend, reads, [&] {
        pending.push_back(KeychainHelper::validAccessToken());
        return true;
    });
    for (auto& task : pending)
        QCoro::waitFor(std::move(task));
    KeychainHelper::clearTokens();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int reads = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;

    KeychainHelper::setStore(nullptr);
    const QString chosen = KeychainHelper::store().backendName();
    if (chosen != u"Secret Service"_s)
        std::printf("no Secret Service in this session (the system store is \"%s\")\n", qPrintable(chosen));
    else
        measure("Secret Service", reads);

    QTemporaryDir dir;
    KeychainHelper::setStore(makeFileSecretStore(dir.filePath(u"credentials.json"_s)));
    measure("file", reads);
    return 0;
}
