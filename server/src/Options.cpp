#include "Options.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <QRegularExpression>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

QString defaultDataDir(const QProcessEnvironment& environment)
{
    const QString xdg = environment.value(u"XDG_DATA_HOME"_s);
    if (!xdg.isEmpty() && QDir::isAbsolutePath(xdg))
        return xdg + u"/quillet-server"_s;
    return QDir::homePath() + u"/.local/share/quillet-server"_s;
}

QString defaultAccountName(const QProcessEnvironment& environment)
{
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_name && *entry->pw_name)
        return QString::fromLocal8Bit(entry->pw_name);
    const QString user = environment.value(u"USER"_s);
    return user.isEmpty() ? u"local"_s : user;
}

bool readInt(const QCommandLineParser& parser, const QCommandLineOption& option, qint64 min, qint64 max, qint64* out,
    QString* error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const qint64 value = parser.value(option).toLongLong(&ok);
    if (!ok || value < min || value > max) {
        *error = u"--%1 needs a whole number from %2 to %3"_s.arg(option.names().constFirst()).arg(min).arg(max);
        return false;
    }
    *out = value;
    return true;
}

// The option's value from the command line, else from its environment variable
// (QUILLET_ and the option's name in capitals, "-" as "_"), else nothing.
std::optional<QString> settingValue(
    const QCommandLineParser& parser, const QCommandLineOption& option, const QProcessEnvironment& environment)
{
    if (parser.isSet(option))
        return parser.value(option);
    const QString variable = u"QUILLET_"_s + option.names().constFirst().toUpper().replace(u'-', u'_');
    const QString value = environment.value(variable);
    if (value.isEmpty())
        return std::nullopt;
    return value;
}

QString settingName(const QCommandLineParser& parser, const QCommandLineOption& option)
{
    const QString name = option.names().constFirst();
    return parser.isSet(option) ? u"--"_s + name : u"QUILLET_"_s + name.toUpper().replace(u'-', u'_');
}

// An API key from a file that only its owner may read. The key itself never appears in a
// message.
bool readKeyFile(const QString& path, const QString& setting, QString* key, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"cannot read %1 %2: %3"_s.arg(setting, path, file.errorString());
        return false;
    }
    struct stat info {
    };
    if (::fstat(file.handle(), &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = u"%1 %2 is not a regular file"_s.arg(setting, path);
        return false;
    }
    if ((info.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        *error = u"%1 %2 can be read by other users; make it private first (chmod 600 %2)"_s.arg(setting, path);
        return false;
    }
    const QString text = QString::fromUtf8(file.readAll()).trimmed();
    if (text.isEmpty()) {
        *error = u"%1 %2 is empty"_s.arg(setting, path);
        return false;
    }
    for (const QChar c : text) {
        // It goes into an HTTP header as it is.
        if (c.unicode() < 0x21 || c.unicode() > 0x7e) {
            *error = u"%1 %2 must hold the key alone, on one line, in printable ASCII"_s.arg(setting, path);
            return false;
        }
    }
    *key = text;
    return true;
}

bool readSetting(const QCommandLineParser& parser, const QCommandLineOption& option,
    const QProcessEnvironment& environment, qint64 min, qint64 max, qint64* out, QString* error)
{
    const auto text = settingValue(parser, option, environment);
    if (!text)
        return true;
    bool ok = false;
    const qint64 value = text->toLongLong(&ok);
    if (!ok || value < min || value > max) {
        *error = u"%1 needs a whole number from %2 to %3"_s.arg(settingName(parser, option)).arg(min).arg(max);
        return false;
    }
    *out = value;
    return true;
}

} // namespace

ParsedOptions parseOptions(const QStringList& arguments, const QProcessEnvironment& environment)
{
    ParsedOptions result;
    ServerOptions& o = result.options;
    const PocketSphinxModel model = PocketSphinxModel::debianDefault();

    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Quillet's local backend: streaming transcription with PocketSphinx, clean-up and rewrite, "
        "sign-in pages and tokens. With no options it serves the addresses the Quillet client expects: "
        "the API on http://127.0.0.1:8000 and the web site on http://127.0.0.1:3000."_s);
    const QCommandLineOption help({ u"h"_s, u"help"_s }, u"Show this help and exit."_s);
    const QCommandLineOption version(u"version"_s, u"Show the version and exit."_s);
    const QCommandLineOption bind(u"bind"_s, u"Address to listen on (default 127.0.0.1)."_s, u"address"_s);
    const QCommandLineOption allowRemote(u"allow-non-loopback"_s,
        u"Allow --bind to name an address other machines can reach. The sign-in page signs in whoever "
        "reaches it, so only do this behind something that authenticates users."_s);
    const QCommandLineOption apiPort(
        u"api-port"_s, u"Port of the API and the WebSocket (default 8000; 0 picks one)."_s, u"port"_s);
    const QCommandLineOption sitePort(
        u"site-port"_s, u"Port of the web site (default 3000; 0 picks one)."_s, u"port"_s);
    const QCommandLineOption dataDir(u"data-dir"_s,
        u"Directory of the database and the signing key (default $XDG_DATA_HOME/quillet-server)."_s, u"dir"_s);
    const QCommandLineOption databaseUrl(u"database"_s,
        u"Keep accounts and refresh tokens in PostgreSQL, e.g. postgresql://quillet@db.example:5432/quillet or "
        "\"host=/run/postgresql dbname=quillet\" (default: SQLite in the data directory). Replicas sharing one "
        "database and one signing key accept each other's tokens."_s,
        u"url"_s);
    const QCommandLineOption databasePasswordFile(u"database-password-file"_s,
        u"File holding the PostgreSQL password (PGPASSWORD and PGPASSFILE work too)."_s, u"file"_s);
    const QCommandLineOption signingKeyFile(u"signing-key-file"_s,
        u"The 32-byte key that signs tokens, created if missing (default: signing.key in the data directory). "
        "Every replica must use the same key."_s,
        u"file"_s);
    const QCommandLineOption account(
        u"account-name"_s, u"Name of the local account (default: your user name)."_s, u"name"_s);
    const QCommandLineOption speech(u"speech-engine"_s,
        u"Speech engine: pocketsphinx (default), or openai: an OpenAI-compatible transcription endpoint "
        "(--speech-url) makes each dictation's final, while PocketSphinx shows the partials and answers when "
        "the endpoint fails. Every --speech option can also be set in the environment, e.g. "
        "QUILLET_SPEECH_ENGINE, QUILLET_SPEECH_URL; the command line wins."_s,
        u"name"_s);
    const QCommandLineOption speechUrl(u"speech-url"_s,
        u"OpenAI-compatible endpoint, e.g. http://gpu-box:8080/v1 (requests go to .../audio/transcriptions); "
        "implies --speech-engine openai."_s,
        u"url"_s);
    const QCommandLineOption speechModel(
        u"speech-model"_s, u"Model name sent to the speech endpoint (default whisper-1)."_s, u"name"_s);
    const QCommandLineOption speechKeyFile(u"speech-key-file"_s,
        u"File holding the speech endpoint's API key, readable by its owner only (or set QUILLET_SPEECH_API_KEY)."_s,
        u"file"_s);
    const QCommandLineOption speechLanguage(u"speech-language"_s,
        u"Language of the speech, sent to the endpoint (ISO 639-1, e.g. en; default: the endpoint guesses)."_s,
        u"code"_s);
    const QCommandLineOption speechTimeout(u"speech-timeout"_s,
        u"Seconds from the end of a dictation to the endpoint's answer before PocketSphinx's text is used "
        "instead (default 10)."_s,
        u"seconds"_s);
    const QCommandLineOption speechMaxRequests(u"speech-max-requests"_s,
        u"Requests to the speech endpoint at once; more wait their turn (default: the stream limit)."_s, u"n"_s);
    const QCommandLineOption hmm(
        u"hmm"_s, u"PocketSphinx acoustic model directory (default %1)."_s.arg(model.acousticModel), u"dir"_s);
    const QCommandLineOption lm(
        u"lm"_s, u"PocketSphinx language model (default %1)."_s.arg(model.languageModel), u"file"_s);
    const QCommandLineOption dict(
        u"dict"_s, u"PocketSphinx pronunciation dictionary (default %1)."_s.arg(model.dictionary), u"file"_s);
    const QCommandLineOption threads(
        u"decoder-threads"_s, u"Threads that decode speech (default: one per core)."_s, u"n"_s);
    const QCommandLineOption preload(u"preload-decoders"_s,
        u"Decoders built at start-up (default 1). More streams than this at once build theirs on first use, a short "
        "delay; each decoder holds about 100 MiB."_s,
        u"n"_s);
    const QCommandLineOption maxStreams(u"max-streams"_s,
        u"Streams decoded at once; more get SERVER_BUSY (default: what this machine decodes in real time, "
        "measured at start-up)."_s,
        u"n"_s);
    const QCommandLineOption maxConnections(
        u"max-connections"_s, u"Open WebSocket connections, signed in or not (default 64)."_s, u"n"_s);
    const QCommandLineOption maxUnauthenticated(u"max-unauthenticated"_s,
        u"WebSocket connections that have not signed in yet, apart from signed-in ones; when full, the oldest "
        "is closed (default 32)."_s,
        u"n"_s);
    const QCommandLineOption headerTimeout(u"header-timeout"_s,
        u"Seconds a client has to send a request's head from its first byte, and the longest pause within "
        "its body (default 10)."_s,
        u"seconds"_s);
    const QCommandLineOption keepAliveTimeout(u"keep-alive-timeout"_s,
        u"Seconds an HTTP connection may stay open with nothing to do (default 30)."_s, u"seconds"_s);
    const QCommandLineOption maxSeconds(
        u"max-stream-seconds"_s, u"Longest dictation in seconds of audio (default 300)."_s, u"seconds"_s);
    const QCommandLineOption authTimeout(
        u"auth-timeout"_s, u"Seconds a new stream has to send its sign-in (default 10)."_s, u"seconds"_s);
    const QCommandLineOption idleTimeout(
        u"idle-timeout"_s, u"Seconds a signed-in stream may stay silent (default 30)."_s, u"seconds"_s);
    const QCommandLineOption accessLifetime(
        u"access-token-lifetime"_s, u"Lifetime of access tokens in seconds (default 900)."_s, u"seconds"_s);
    const QCommandLineOption refreshLifetime(
        u"refresh-token-lifetime"_s, u"Lifetime of refresh tokens in days (default 30)."_s, u"days"_s);
    const QCommandLineOption text(
        u"text-engine"_s, u"Clean-up and rewrite engine: rules (default) or chat (needs --chat-url)."_s, u"name"_s);
    const QCommandLineOption chatUrl(u"chat-url"_s,
        u"OpenAI-compatible endpoint, e.g. http://127.0.0.1:8080/v1; implies --text-engine chat."_s, u"url"_s);
    const QCommandLineOption chatModel(u"chat-model"_s, u"Model name sent to the chat endpoint."_s, u"name"_s);
    const QCommandLineOption chatKeyFile(
        u"chat-key-file"_s, u"File holding the chat endpoint's API key (or set QUILLET_CHAT_API_KEY)."_s, u"file"_s);
    const QCommandLineOption chatCleanupTimeout(u"chat-cleanup-timeout"_s,
        u"Milliseconds to wait for the chat endpoint on a clean-up (default 8000)."_s, u"ms"_s);
    const QCommandLineOption chatRewriteTimeout(u"chat-rewrite-timeout"_s,
        u"Milliseconds to wait for the chat endpoint on a rewrite (default 12000)."_s, u"ms"_s);
    parser.addOptions({ help, version, bind, allowRemote, apiPort, sitePort, dataDir, databaseUrl, databasePasswordFile,
        signingKeyFile, account, speech, speechUrl, speechModel, speechKeyFile, speechLanguage, speechTimeout,
        speechMaxRequests, hmm, lm, dict, threads, preload, maxStreams, maxConnections, maxUnauthenticated,
        headerTimeout, keepAliveTimeout, maxSeconds, authTimeout, idleTimeout, accessLifetime, refreshLifetime, text,
        chatUrl, chatModel, chatKeyFile, chatCleanupTimeout, chatRewriteTimeout });

    auto fail = [&result](const QString& message) {
        result.action = ParsedOptions::Action::Fail;
        result.text = message;
        return result;
    };

    if (!parser.parse(arguments))
        return fail(parser.errorText());
    if (!parser.positionalArguments().isEmpty())
        return fail(u"unexpected argument: %1"_s.arg(parser.positionalArguments().constFirst()));
    if (parser.isSet(help)) {
        result.action = ParsedOptions::Action::ShowText;
        result.text = parser.helpText();
        return result;
    }
    if (parser.isSet(version)) {
        result.action = ParsedOptions::Action::ShowText;
        result.text = u"quillet-server %1\n"_s.arg(QStringLiteral(QUILLET_SERVER_VERSION));
        return result;
    }

    if (parser.isSet(bind)) {
        if (!o.bindAddress.setAddress(parser.value(bind)))
            return fail(u"--bind needs an IP address, not \"%1\""_s.arg(parser.value(bind)));
        if (!o.bindAddress.isLoopback() && !parser.isSet(allowRemote))
            return fail(u"--bind %1 would let other machines sign in as you; add --allow-non-loopback if that is "
                        "really meant"_s.arg(parser.value(bind)));
    }

    QString error;
    qint64 value = o.apiPort;
    if (!readInt(parser, apiPort, 0, 65535, &value, &error))
        return fail(error);
    o.apiPort = quint16(value);
    value = o.sitePort;
    if (!readInt(parser, sitePort, 0, 65535, &value, &error))
        return fail(error);
    o.sitePort = quint16(value);

    o.dataDir = parser.isSet(dataDir) ? parser.value(dataDir) : defaultDataDir(environment);
    if (parser.isSet(databaseUrl)) {
        o.postgres = parsePostgresUrl(parser.value(databaseUrl), &error);
        if (!o.postgres)
            return fail(error);
        if (parser.isSet(databasePasswordFile)) {
            QFile file(parser.value(databasePasswordFile));
            if (!file.open(QIODevice::ReadOnly))
                return fail(u"cannot read --database-password-file %1: %2"_s.arg(file.fileName(), file.errorString()));
            o.postgres->password = QString::fromUtf8(file.readAll()).trimmed();
        }
    } else if (parser.isSet(databasePasswordFile)) {
        return fail(u"--database-password-file needs --database"_s);
    }
    if (parser.isSet(signingKeyFile))
        o.signingKeyFile = parser.value(signingKeyFile);
    o.accountName = parser.isSet(account) ? parser.value(account) : defaultAccountName(environment);
    if (o.accountName.trimmed().isEmpty())
        return fail(u"--account-name may not be empty"_s);

    const auto speechUrlValue = settingValue(parser, speechUrl, environment);
    if (const auto name = settingValue(parser, speech, environment))
        o.speechEngine = *name;
    else if (speechUrlValue)
        o.speechEngine = u"openai"_s;
    if (o.speechEngine != u"pocketsphinx"_s && o.speechEngine != u"openai"_s)
        return fail(u"unknown speech engine \"%1\" (available: pocketsphinx, openai)"_s.arg(o.speechEngine));
    if (o.speechEngine == u"openai"_s) {
        o.speech.url = QUrl(speechUrlValue.value_or(QString()), QUrl::StrictMode);
        if (!speechUrlValue || !o.speech.url.isValid() || o.speech.url.host().isEmpty()
            || (o.speech.url.scheme() != u"http"_s && o.speech.url.scheme() != u"https"_s))
            return fail(u"--speech-engine openai needs --speech-url with an http or https address"_s);
        if (!o.speech.url.userInfo().isEmpty())
            return fail(u"--speech-url may not hold a user name or password; use --speech-key-file"_s);
        if (const auto model = settingValue(parser, speechModel, environment))
            o.speech.model = *model;
        o.speech.apiKey = environment.value(u"QUILLET_SPEECH_API_KEY"_s).trimmed();
        if (const auto keyFile = settingValue(parser, speechKeyFile, environment)) {
            if (!readKeyFile(*keyFile, settingName(parser, speechKeyFile), &o.speech.apiKey, &error))
                return fail(error);
        }
        if (const auto language = settingValue(parser, speechLanguage, environment)) {
            static const QRegularExpression code(u"^[A-Za-z]{2,3}([-_][A-Za-z0-9]{2,8})?$"_s);
            if (!code.match(*language).hasMatch())
                return fail(u"%1 needs a language code such as en or pt-BR"_s.arg(settingName(parser, speechLanguage)));
            o.speech.language = *language;
        }
        value = o.speech.timeoutMs / 1000;
        if (!readSetting(parser, speechTimeout, environment, 1, 600, &value, &error))
            return fail(error);
        o.speech.timeoutMs = int(value * 1000);
        value = o.speech.maxRequests;
        if (!readSetting(parser, speechMaxRequests, environment, 1, 1024, &value, &error))
            return fail(error);
        o.speech.maxRequests = int(value);
    } else {
        for (const QCommandLineOption* option :
            { &speechUrl, &speechModel, &speechKeyFile, &speechLanguage, &speechTimeout, &speechMaxRequests }) {
            if (parser.isSet(*option))
                return fail(u"--%1 needs --speech-engine openai"_s.arg(option->names().constFirst()));
        }
    }
    if (parser.isSet(hmm))
        o.model.acousticModel = parser.value(hmm);
    if (parser.isSet(lm))
        o.model.languageModel = parser.value(lm);
    if (parser.isSet(dict))
        o.model.dictionary = parser.value(dict);

    value = o.decoderThreads;
    if (!readInt(parser, threads, 0, 256, &value, &error))
        return fail(error);
    o.decoderThreads = int(value);
    value = o.preloadDecoders;
    if (!readInt(parser, preload, 1, 1024, &value, &error))
        return fail(error);
    o.preloadDecoders = int(value);
    value = o.limits.maxStreams;
    if (!readInt(parser, maxStreams, 1, 1024, &value, &error))
        return fail(error);
    o.limits.maxStreams = int(value);
    o.measureStreamLimit = !parser.isSet(maxStreams);
    value = o.maxConnections;
    if (!readInt(parser, maxConnections, 1, 100000, &value, &error))
        return fail(error);
    o.maxConnections = int(value);
    value = o.maxUnauthenticated;
    if (!readInt(parser, maxUnauthenticated, 1, 100000, &value, &error))
        return fail(error);
    o.maxUnauthenticated = int(value);
    value = o.http.headerTimeoutMs / 1000;
    if (!readInt(parser, headerTimeout, 1, 3600, &value, &error))
        return fail(error);
    o.http.headerTimeoutMs = int(value * 1000);
    value = o.http.keepAliveTimeoutMs / 1000;
    if (!readInt(parser, keepAliveTimeout, 1, 3600, &value, &error))
        return fail(error);
    o.http.keepAliveTimeoutMs = int(value * 1000);
    if (!readInt(parser, maxSeconds, 1, 24 * 3600, &o.limits.maxStreamSeconds, &error))
        return fail(error);
    value = o.limits.authTimeoutMs / 1000;
    if (!readInt(parser, authTimeout, 1, 3600, &value, &error))
        return fail(error);
    o.limits.authTimeoutMs = int(value * 1000);
    value = o.limits.idleTimeoutMs / 1000;
    if (!readInt(parser, idleTimeout, 1, 3600, &value, &error))
        return fail(error);
    o.limits.idleTimeoutMs = int(value * 1000);
    if (!readInt(parser, accessLifetime, 1, 30LL * 24 * 3600, &o.accessTokenSeconds, &error))
        return fail(error);
    if (!readInt(parser, refreshLifetime, 1, 3650, &o.refreshTokenDays, &error))
        return fail(error);

    if (parser.isSet(text))
        o.textEngine = parser.value(text);
    else if (parser.isSet(chatUrl))
        o.textEngine = u"chat"_s;
    if (o.textEngine != u"rules"_s && o.textEngine != u"chat"_s)
        return fail(u"unknown text engine \"%1\" (available: rules, chat)"_s.arg(o.textEngine));
    if (o.textEngine == u"chat"_s) {
        o.chat.url = QUrl(parser.value(chatUrl));
        if (!parser.isSet(chatUrl) || !o.chat.url.isValid()
            || (o.chat.url.scheme() != u"http"_s && o.chat.url.scheme() != u"https"_s))
            return fail(u"--text-engine chat needs --chat-url with an http or https address"_s);
        o.chat.model = parser.isSet(chatModel) ? parser.value(chatModel) : u"default"_s;
        o.chat.apiKey = environment.value(u"QUILLET_CHAT_API_KEY"_s);
        if (parser.isSet(chatKeyFile)) {
            QFile file(parser.value(chatKeyFile));
            if (!file.open(QIODevice::ReadOnly))
                return fail(u"cannot read --chat-key-file %1: %2"_s.arg(file.fileName(), file.errorString()));
            o.chat.apiKey = QString::fromUtf8(file.readAll()).trimmed();
        }
        value = o.chat.cleanupTimeoutMs;
        if (!readInt(parser, chatCleanupTimeout, 100, 600'000, &value, &error))
            return fail(error);
        o.chat.cleanupTimeoutMs = int(value);
        value = o.chat.rewriteTimeoutMs;
        if (!readInt(parser, chatRewriteTimeout, 100, 600'000, &value, &error))
            return fail(error);
        o.chat.rewriteTimeoutMs = int(value);
    }
    return result;
}
