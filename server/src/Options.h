#pragma once

#include "ChatTextEngine.h"
#include "PocketSphinxEngine.h"
#include "StreamSession.h"

#include <QHostAddress>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

struct ServerOptions {
    QHostAddress bindAddress { QHostAddress::LocalHost };
    quint16 apiPort = 8000;
    quint16 sitePort = 3000;
    QString dataDir;
    QString accountName;
    QString speechEngine = QStringLiteral("pocketsphinx");
    PocketSphinxModel model = PocketSphinxModel::debianDefault();
    int decoderThreads = 0; // 0: one per core
    int preloadDecoders = 1;
    StreamLimits limits;
    bool measureStreamLimit = true; // no --max-streams: the start-up measurement sets limits.maxStreams
    int maxConnections = 64;
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

// Reads the command line (and QUILLET_CHAT_API_KEY from the environment, since keys on
// a command line are visible to every user through ps).
ParsedOptions parseOptions(const QStringList& arguments, const QProcessEnvironment& environment);
