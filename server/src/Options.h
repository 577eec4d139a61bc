#pragma once

#include "ChatTextEngine.h"
#include "DatabaseUrl.h"
#include "HttpGate.h"
#include "OpenAiSpeechEngine.h"
#include "PocketSphinxEngine.h"
#include "StreamSession.h"

#include <QHostAddress>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <optional>

struct ServerOptions {
    QHostAddress bindAddress { QHostAddress::LocalHost };
    quint16 apiPort = 8000;
    quint16 sitePort = 3000;
    QString dataDir;
    std::optional<PostgresConnection> postgres; // accounts and tokens in PostgreSQL instead of SQLite
    QString signingKeyFile; // empty: signing.key in the data directory
    QString accountName;
    QString speechEngine = QStringLiteral("pocketsphinx"); // or "openai"
    SpeechEndpoint speech; // with "openai"
    PocketSphinxModel model = PocketSphinxModel::debianDefault();
    int decoderThreads = 0; // 0: one per core
    int preloadDecoders = 1;
    StreamLimits limits;
    bool measureStreamLimit = true; // no --max-streams: the start-up measurement sets limits.maxStreams
    int maxConnections = 64;
    int maxUnauthenticated = 32;
    HttpGateSettings http;
    qint64 accessTokenSeconds = 15 * 60;
    qint64 refreshTokenDays = 30;
    QString textEngine = QStringLiteral("rules");
    ChatEndpoint chat;
};

struct ParsedOptions {
    enum class Action { Run, ShowText, Fail };
    Action action = Action::Run;
    ServerOptions options;
    QString text; // help or version text, or the error
};

// Reads the command line (and QUILLET_CHAT_API_KEY and QUILLET_SPEECH_API_KEY from the
// environment, since keys on a command line are visible to every user through ps; the
// database password comes from a file, or from libpq's own PGPASSWORD and PGPASSFILE).
// The speech engine's options can also come from the environment, for a systemd unit:
// QUILLET_SPEECH_ENGINE, QUILLET_SPEECH_URL, ... (the option's name in capitals); the
// command line wins.
ParsedOptions parseOptions(const QStringList& arguments, const QProcessEnvironment& environment);
