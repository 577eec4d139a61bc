#include "ApiServer.h"
#include "AuthService.h"
#include "Capacity.h"
#include "ChatTextEngine.h"
#include "Log.h"
#include "OpenAiSpeechEngine.h"
#include "Options.h"
#include "PocketSphinxEngine.h"
#include "RuleTextEngine.h"
#include "SiteServer.h"
#include "TokenStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

int signalPipe[2] = { -1, -1 };

void onTerminationSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM (systemd stopping the unit) and SIGINT end the event loop, so that the
// database closes and the decoders are freed in order.
void quitOnTerminationSignals(QCoreApplication& app)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&app] {
        char byte = 0;
        [[maybe_unused]] const ssize_t got = ::read(signalPipe[0], &byte, 1);
        Log::line(Log::Kind::Info, u"stopping"_s);
        app.quit();
    });
    struct sigaction action {
    };
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

bool makePrivateDirectory(const QString& path, QString* error)
{
    QDir dir(path);
    if (!dir.exists() && !QDir().mkpath(path)) {
        *error = u"cannot create the data directory %1"_s.arg(path);
        return false;
    }
    // The directory holds the signing key and the token database: the user's alone.
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    return true;
}

int failStart(const QString& message)
{
    Log::line(Log::Kind::Failure, message);
    return 1;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"quillet-server"_s);
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLET_SERVER_VERSION));

    const ParsedOptions parsed = parseOptions(app.arguments(), QProcessEnvironment::systemEnvironment());
    switch (parsed.action) {
    case ParsedOptions::Action::ShowText:
        std::fputs(parsed.text.toLocal8Bit().constData(), stdout);
        return 0;
    case ParsedOptions::Action::Fail:
        std::fprintf(
            stderr, "quillet-server: %s\nTry 'quillet-server --help'.\n", parsed.text.toLocal8Bit().constData());
        return 2;
    case ParsedOptions::Action::Run:
        break;
    }
    const ServerOptions& options = parsed.options;
    quitOnTerminationSignals(app);
    // Everything this process creates (database, its journal files, the signing key, the
    // data directory) is the user's alone, whatever umask it was started with.
    ::umask(077);

    QString error;
    if (!makePrivateDirectory(options.dataDir, &error))
        return failStart(error);
    const QDir dataDir(options.dataDir);
    Log::line(Log::Kind::Info, u"data directory %1"_s.arg(dataDir.absolutePath()));

    TokenStore store;
    if (options.postgres) {
        Log::line(Log::Kind::Info, u"database %1"_s.arg(options.postgres->display()));
        if (!store.openPostgres(*options.postgres, &error))
            return failStart(u"cannot open the database: %1"_s.arg(error));
    } else if (!store.open(dataDir.filePath(u"quillet.db"_s), &error)) {
        return failStart(u"cannot open the database: %1"_s.arg(error));
    }
    const QString keyFile
        = options.signingKeyFile.isEmpty() ? dataDir.filePath(u"signing.key"_s) : options.signingKeyFile;
    const auto key = AuthService::loadOrCreateSigningKey(keyFile, &error);
    if (!key)
        return failStart(error);
    AuthService auth(store, *key, { options.accessTokenSeconds, options.refreshTokenDays * 24 * 3600 });
    if (!store.ensureAccount(options.accountName))
        return failStart(u"cannot create the local account in the database"_s);

    const int threads = options.decoderThreads > 0 ? options.decoderThreads : std::max(1, QThread::idealThreadCount());
    PocketSphinxEngine pocketsphinx(options.model, threads);
    const bool remoteSpeech = options.speechEngine == u"openai"_s;
    const bool embedded = pocketsphinx.prepare(options.preloadDecoders, &error);
    if (embedded) {
        Log::line(Log::Kind::Audio,
            u"speech engine pocketsphinx ready (%1 decoding threads, %2 decoders, model %3)"_s.arg(threads)
                .arg(std::max(options.preloadDecoders, pocketsphinx.lanes()))
                .arg(options.model.acousticModel));
    } else if (!remoteSpeech) {
        return failStart(u"speech engine: %1"_s.arg(error));
    } else {
        Log::line(Log::Kind::Warning,
            u"pocketsphinx unavailable (%1): the speech endpoint alone serves, without partials"_s.arg(error));
    }
    SpeechEngine* speech = &pocketsphinx;
    std::unique_ptr<OpenAiSpeechEngine> remote;
    if (remoteSpeech) {
        remote = std::make_unique<OpenAiSpeechEngine>(options.speech, embedded ? &pocketsphinx : nullptr);
        if (options.speech.maxRequests == 0)
            remote->setRequestLimit(options.limits.maxStreams);
        speech = remote.get();
        // The address without its query, which some services use for credentials.
        Log::line(Log::Kind::Audio,
            u"speech engine %1 at %2%3"_s.arg(remote->name(),
                options.speech.transcriptionsUrl().toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery),
                embedded ? u", partials and fall-back from pocketsphinx"_s : QString()));
    }

    RuleTextEngine rules;
    std::unique_ptr<ChatTextEngine> chat;
    TextEngine* text = &rules;
    if (options.textEngine == u"chat"_s) {
        chat = std::make_unique<ChatTextEngine>(options.chat, rules);
        text = chat.get();
        Log::line(Log::Kind::Text,
            u"text engine %1 at %2, falling back to rules"_s.arg(
                chat->name(), options.chat.completionsUrl().toString(QUrl::RemoveUserInfo)));
    } else {
        Log::line(Log::Kind::Text, u"text engine rules"_s);
    }

    ApiServer api(auth, *speech, *text, options.limits, options.maxConnections);
    api.setHttpSettings(options.http);
    api.setUnauthenticatedLimit(options.maxUnauthenticated);
    const quint16 apiPort = api.listen(options.bindAddress, options.apiPort);
    if (apiPort == 0)
        return failStart(
            u"cannot listen on %1:%2 for the API (is another server running?)"_s.arg(options.bindAddress.toString())
                .arg(options.apiPort));
    SiteServer site(auth, options.accountName, options.bindAddress);
    site.setHttpSettings(options.http);
    const quint16 sitePort = site.listen(options.bindAddress, options.sitePort);
    if (sitePort == 0)
        return failStart(u"cannot listen on %1:%2 for the web site (is another server running?)"_s
                             .arg(options.bindAddress.toString())
                             .arg(options.sitePort));

    const QString host = options.bindAddress.protocol() == QAbstractSocket::IPv6Protocol
        ? u'[' + options.bindAddress.toString() + u']'
        : options.bindAddress.toString();
    // Our own pages are the only web pages that may open a stream.
    QStringList origins;
    for (const QString& name : { u"127.0.0.1"_s, u"localhost"_s, u"[::1]"_s, host })
        origins << u"http://%1:%2"_s.arg(name).arg(sitePort);
    api.setBrowserOrigins(origins);
    Log::line(Log::Kind::Success, u"API listening on http://%1:%2"_s.arg(host).arg(apiPort));
    Log::line(Log::Kind::Success, u"web site listening on http://%1:%2"_s.arg(host).arg(sitePort));

    // Measured once in the background, so the listeners answer at once; until the figure
    // arrives (well under a second) the limit is the option's default.
    const int cores = std::min(pocketsphinx.lanes(), std::max(1, QThread::idealThreadCount()));
    if (!embedded)
        return app.exec(); // nothing to measure: the limit is --max-streams or its default
    // Requests to the speech endpoint follow the stream limit unless --speech-max-requests says otherwise.
    OpenAiSpeechEngine* followsLimit = remote && options.speech.maxRequests == 0 ? remote.get() : nullptr;
    pocketsphinx.measureRealTimeFactor(
        Capacity::calibrationClip(), [api = QPointer(&api), &options, cores, followsLimit](double factor) {
            // Posted to the application, which outlives the API server; the server is checked there.
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [api, &options, cores, factor, followsLimit] {
                    if (!api)
                        return;
                    if (!(factor > 0)) {
                        Log::line(Log::Kind::Warning,
                            u"capacity: the speech engine could not be measured; %1 streams at once"_s.arg(
                                options.limits.maxStreams));
                        return;
                    }
                    const int capacity = Capacity::streams(cores, factor);
                    const QString measured = u"%1 cores, real-time factor %2"_s.arg(cores).arg(factor, 0, 'f', 3);
                    if (!options.measureStreamLimit) {
                        Log::line(Log::Kind::Info,
                            u"capacity: %1 streams (%2); --max-streams %3 applies"_s.arg(capacity).arg(measured).arg(
                                options.limits.maxStreams));
                        return;
                    }
                    api->setStreamLimit(capacity);
                    if (followsLimit)
                        followsLimit->setRequestLimit(capacity);
                    Log::line(Log::Kind::Info, u"capacity: %1 streams (%2)"_s.arg(capacity).arg(measured));
                },
                Qt::QueuedConnection);
        });
    return app.exec();
}
