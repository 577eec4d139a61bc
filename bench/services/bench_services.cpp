// Figures for the client's text services against the real quillet-server on loopback:
//   1. a whole CleanupService::cleanup() call on a 200-word transcript (token read,
//      request, server's rule engine, reply decoded), p50 and p95 over 200 calls;
//   2. the same for RewriteService::rewrite() in each of two tones;
//   3. HistoryManager::entries() with 50 stored entries, and add() with its sync to disk.
// Prints only; the numbers depend on the machine and on what else runs on it.
#include "ServerProcess.h"
#include "platform/SecretStore.h"
#include "services/AppConfig.h"
#include "services/CleanupService.h"
#include "services/HistoryManager.h"
#include "services/KeychainHelper.h"
#include "services/RewriteService.h"
#include "services/SettingsStore.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr int kCalls = 200;
constexpr int kWarmUp = 10;

// 200 words of unpunctuated recogniser output with fillers and stumbles.
QString transcript()
{
    const QString sentence = u"um so i i think the the quarterly report is uh mostly done but we still need "
                             "to check the numbers with kubernetes and postgresql you know before friday "_s;
    QString text;
    while (text.split(u' ', Qt::SkipEmptyParts).size() < 200)
        text += sentence;
    return text.split(u' ', Qt::SkipEmptyParts).mid(0, 200).join(u' ');
}

struct Figures {
    double p50 = 0;
    double p95 = 0;
    double mean = 0;
};

Figures summarise(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    Figures f;
    f.p50 = samples[samples.size() / 2];
    f.p95 = samples[std::min(samples.size() - 1, samples.size() * 95 / 100)];
    for (double s : samples)
        f.mean += s;
    f.mean /= static_cast<double>(samples.size());
    return f;
}

// Runs `call` kWarmUp times unmeasured, then kCalls times; milliseconds per call.
// Any call that gives nothing makes the whole figure meaningless: stop.
std::vector<double> measure(const char* what, const std::function<std::optional<QString>()>& call)
{
    std::vector<double> samples;
    for (int i = 0; i < kWarmUp + kCalls; ++i) {
        QElapsedTimer clock;
        clock.start();
        const std::optional<QString> result = call();
        const double ms = static_cast<double>(clock.nsecsElapsed()) / 1e6;
        if (!result) {
            std::fprintf(stderr, "%s gave nothing on call %d\n", what, i + 1);
            std::exit(1);
        }
        if (i >= kWarmUp)
            samples.push_back(ms);
    }
    return samples;
}

void print(const char* what, const Figures& f, const char* unit = "ms")
{
    std::printf("%-42s p50 %8.3f %s   p95 %8.3f %s   mean %8.3f %s\n", what, f.p50, unit, f.p95, unit, f.mean, unit);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;

    ServerProcess server;
    QString error;
    if (!server.start(&error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return 1;
    }
    Http http;
    const TokenPair pair = signInThroughSite(http, server, &error);
    if (!error.isEmpty()) {
        std::fprintf(stderr, "sign-in failed: %s\n", qPrintable(error));
        return 1;
    }

    // The client as the program runs it, but on private files: tokens in the file store,
    // settings in a private INI file, the backend address in a private information file.
    KeychainHelper::setStore(makeFileSecretStore(dir.filePath(u"credentials.json"_s)));
    KeychainHelper::save(KeychainHelper::accessTokenKey, pair.access);
    KeychainHelper::save(KeychainHelper::refreshTokenKey, pair.refresh);
    QFile info(dir.filePath(u"quillet-info.json"_s));
    if (!info.open(QIODevice::WriteOnly))
        return 1;
    info.write(QJsonDocument(QJsonObject { { u"API_BASE_URL"_s, server.apiUrl({}).toString() } }).toJson());
    info.close();
    AppConfig::setInfoFilePathForTesting(info.fileName());
    SettingsStore::resetShared(std::make_unique<SettingsStore>(
        std::make_unique<QSettings>(dir.filePath(u"settings.ini"_s), QSettings::IniFormat)));
    SettingsStore::shared().setDictionary({ u"Kubernetes"_s, u"PostgreSQL"_s, u"Friday"_s, u"Quillet"_s });

    const QString text = transcript();
    std::printf("quillet-server on 127.0.0.1:%u, %d calls after %d unmeasured, 200-word transcript, 4 dictionary "
                "terms\n",
        unsigned(server.apiPort()), kCalls, kWarmUp);

    print("CleanupService::cleanup (whole call)",
        summarise(measure("cleanup", [&] { return QCoro::waitFor(CleanupService::shared().cleanup(text)); })));
    print("RewriteService::rewrite professional", summarise(measure("rewrite", [&] {
        return QCoro::waitFor(RewriteService::shared().rewrite(text, Tone::professional));
    })));
    print("RewriteService::rewrite concise", summarise(measure("rewrite", [&] {
        return QCoro::waitFor(RewriteService::shared().rewrite(text, Tone::concise));
    })));

    // History: a full list of 50 entries of dictation-sized texts.
    HistoryManager history(std::make_unique<QSettings>(dir.filePath(u"history.ini"_s), QSettings::IniFormat));
    std::vector<double> adds;
    for (int i = 0; i < HistoryManager::maxEntries + 10; ++i) {
        QElapsedTimer clock;
        clock.start();
        history.add(text.left(300) + QString::number(i));
        adds.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
    }
    std::vector<double> reads;
    qsizetype seen = 0;
    for (int i = 0; i < 2000; ++i) {
        QElapsedTimer clock;
        clock.start();
        seen += history.entries().size();
        reads.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e3);
    }
    if (seen != 2000 * HistoryManager::maxEntries) {
        std::fprintf(stderr, "history read gave the wrong number of entries\n");
        return 1;
    }
    print("HistoryManager::entries (50 entries)", summarise(reads), "us");
    print("HistoryManager::add (50 entries, sync)", summarise(adds));

    CleanupService::resetShared();
    RewriteService::resetShared();
    KeychainHelper::setStore(nullptr);
    AppConfig::setInfoFilePathForTesting({});
    return 0;
}
