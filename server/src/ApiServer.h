#pragma once

#include "StreamSession.h"

#include <QHostAddress>
#include <QHttpServer>
#include <QObject>

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

    // Returns the port bound (useful with port 0), or 0 on failure.
    quint16 listen(const QHostAddress& address, quint16 port);
    // Streams decoded at once from now on (the start-up measurement arrives after listen()).
    void setStreamLimit(int limit) { m_counter.setLimit(limit); }

private:
    void addRoutes();
    void acceptWebSockets();
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
    quint64 m_nextStreamId = 1;
    QHttpServer m_http;
};
