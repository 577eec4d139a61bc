#pragma once

#include "HttpGate.h"
#include "StreamSession.h"

#include <QHostAddress>
#include <QHttpServer>
#include <QObject>
#include <QPointer>

class AuthService;
class SpeechEngine;
class TextEngine;

// The API address: health, token refresh, clean-up and rewrite, and the transcription
// WebSocket, all on one port.
class ApiServer final : public QObject
{
    Q_OBJECT
public:
    ApiServer(AuthService& auth, SpeechEngine& speech, TextEngine& text, const StreamLimits& limits, int maxConnections,
        QObject* parent = nullptr);
    ~ApiServer() override;

    // Limits and timers of the HTTP connections; set before listen().
    void setHttpSettings(const HttpGateSettings& settings) { m_httpSettings = settings; }
    // Streams that have not signed in yet share this many slots, apart from signed-in ones.
    void setUnauthenticatedLimit(int limit) { m_maxUnauthenticated = limit; }
    // Browser origins (e.g. "http://127.0.0.1:3000") allowed to open a stream; a request
    // without an Origin header (a native client) is always allowed.
    void setBrowserOrigins(const QStringList& origins);

    // Returns the port bound (useful with port 0), or 0 on failure.
    quint16 listen(const QHostAddress& address, quint16 port);
    // Streams decoded at once from now on (the start-up measurement arrives after listen()).
    void setStreamLimit(int limit) { m_counter.setLimit(limit); }

private:
    void addRoutes();
    void acceptWebSockets();
    std::optional<HttpRefusal> checkHead(const HttpRequestHead& head) const;
    QHttpServerResponse health() const;
    QHttpServerResponse refresh(const QHttpServerRequest& request);
    void text(const QHttpServerRequest& request, QHttpServerResponder&& responder, bool rewrite);

    AuthService& m_auth;
    SpeechEngine& m_speech;
    TextEngine& m_text;
    StreamLimits m_limits;
    int m_maxConnections;
    StreamCounter m_counter;
    int m_connections = 0;
    HttpGateSettings m_httpSettings;
    int m_maxUnauthenticated = 32;
    QList<QPointer<StreamSession>> m_unauthenticated; // oldest first
    QStringList m_browserOrigins;
    quint64 m_nextStreamId = 1;
    QHttpServer m_http;
};
