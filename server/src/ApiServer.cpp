#include "ApiServer.h"

#include "AuthService.h"
#include "Log.h"
#include "SpeechEngine.h"
#include "TextEngine.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTcpSocket>

using namespace Qt::Literals::StringLiterals;
using Status = QHttpServerResponder::StatusCode;

namespace {

// Request bodies are small JSON documents; anything larger is a mistake or an attack.
constexpr qsizetype maxBodyBytes = 1024 * 1024;
// A dictation of half an hour is about 30,000 characters; a dictionary is a list of
// names and jargon. Larger requests get 413 and a body without "text", on which the
// client keeps the raw transcript.
constexpr qsizetype maxTextChars = 64 * 1024;
constexpr qsizetype maxDictionaryTerms = 2000;
constexpr qsizetype maxTermChars = 100;

QJsonObject errorBody(const QString& code, const QString& message)
{
    return QJsonObject { { u"error"_s, QJsonObject { { u"code"_s, code }, { u"message"_s, message } } } };
}

QHttpServerResponse jsonError(Status status, const QString& code, const QString& message)
{
    QHttpServerResponse response(errorBody(code, message), status);
    response.addHeader("Cache-Control", "no-store");
    return response;
}

std::optional<QJsonObject> jsonObjectBody(const QHttpServerRequest& request)
{
    if (request.body().size() > maxBodyBytes)
        return std::nullopt;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(request.body(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    return doc.object();
}

QByteArray bearerToken(const QHttpServerRequest& request)
{
    const QByteArray header = request.value("Authorization").trimmed();
    if (header.size() < 7 || qstrnicmp(header.constData(), "bearer ", 7) != 0)
        return {};
    return header.mid(7).trimmed();
}

} // namespace

ApiServer::ApiServer(AuthService& auth, SpeechEngine& speech, TextEngine& text, const StreamLimits& limits,
    int maxConnections, QObject* parent)
    : QObject(parent)
    , m_auth(auth)
    , m_speech(speech)
    , m_text(text)
    , m_limits(limits)
    , m_maxConnections(maxConnections)
    , m_counter(limits.maxStreams)
{
    addRoutes();
    connect(&m_http, &QHttpServer::newWebSocketConnection, this, &ApiServer::acceptWebSockets);
}

ApiServer::~ApiServer()
{
    // Sessions give their stream slot back to m_counter when they go; they must go while it exists.
    qDeleteAll(findChildren<StreamSession*>(Qt::FindDirectChildrenOnly));
}

void ApiServer::setBrowserOrigins(const QStringList& origins)
{
    m_browserOrigins.clear();
    for (const QString& origin : origins)
        m_browserOrigins << origin.toLower();
}

quint16 ApiServer::listen(const QHostAddress& address, quint16 port)
{
    // QHttpServer's own listener would buffer whole requests before any check; the gate
    // looks at each request's head and body as they arrive.
    auto gate = std::make_unique<HttpGate>(m_httpSettings);
    gate->setCheck([this](const HttpRequestHead& head) { return checkHead(head); });
    if (!gate->listen(address, port))
        return 0;
    const quint16 bound = gate->serverPort();
    m_http.bind(gate.release()); // QHttpServer takes it as a child
    return bound;
}

std::optional<HttpRefusal> ApiServer::checkHead(const HttpRequestHead& head) const
{
    if (head.path() != "/ws/transcribe")
        return std::nullopt;
    if (!head.upgradeToWebSocket)
        return HttpRefusal { 426, u"UPGRADE_REQUIRED"_s, u"This address speaks WebSocket only."_s,
            { { "Upgrade", "websocket" } } };
    // A web page the user happens to visit could otherwise open streams through their
    // browser; our own site is the only page with business here.
    const QString origin = QString::fromLatin1(head.value("origin")).toLower();
    if (!origin.isEmpty() && !m_browserOrigins.contains(origin))
        return HttpRefusal { 403, u"FORBIDDEN_ORIGIN"_s, u"Streams are not open to other web sites."_s, {} };
    return std::nullopt;
}

void ApiServer::addRoutes()
{
    m_http.route(u"/health"_s, QHttpServerRequest::Method::Get, [this] { return health(); });
    m_http.route(u"/auth/refresh"_s, QHttpServerRequest::Method::Post,
        [this](const QHttpServerRequest& request) { return refresh(request); });
    m_http.route(u"/cleanup"_s, QHttpServerRequest::Method::Post,
        [this](const QHttpServerRequest& request, QHttpServerResponder&& responder) {
            text(request, std::move(responder), false);
        });
    m_http.route(u"/rewrite"_s, QHttpServerRequest::Method::Post,
        [this](const QHttpServerRequest& request, QHttpServerResponder&& responder) {
            text(request, std::move(responder), true);
        });
    // QHttpServer hands an upgrade request to newWebSocketConnection only when a route
    // matches it; a route that writes nothing lets the handshake go ahead (a written
    // response would answer the handshake with a plain 200).
    m_http.route(u"/ws/transcribe"_s, [](QHttpServerResponder&&) {});
}

QHttpServerResponse ApiServer::health() const
{
    QJsonObject body {
        { u"status"_s, u"ok"_s },
        { u"version"_s, QStringLiteral(QUILLET_SERVER_VERSION) },
        { u"speech_engine"_s, m_speech.name() },
        { u"text_engine"_s, m_text.name() },
        { u"streams"_s, QJsonObject { { u"active"_s, m_counter.active() }, { u"limit"_s, m_counter.limit() } } },
    };
    if (const QJsonObject endpoint = m_speech.endpointStatus(); !endpoint.isEmpty())
        body.insert(u"speech_endpoint"_s, endpoint);
    return QHttpServerResponse(body);
}

QHttpServerResponse ApiServer::refresh(const QHttpServerRequest& request)
{
    const auto body = jsonObjectBody(request);
    if (!body || !body->value(u"refresh_token"_s).isString())
        return jsonError(Status::BadRequest, u"BAD_REQUEST"_s, u"Send a JSON body with \"refresh_token\"."_s);

    const AuthService::RefreshResult result = m_auth.refresh(body->value(u"refresh_token"_s).toString());
    switch (result.outcome) {
    case AuthService::RefreshOutcome::Refreshed: {
        Log::line(Log::Kind::Refresh, u"refresh token rotated for %1"_s.arg(result.subject));
        QHttpServerResponse response(QJsonObject {
            { u"access_token"_s, result.tokens.accessToken },
            { u"refresh_token"_s, result.tokens.refreshToken },
            { u"token_type"_s, u"Bearer"_s },
        });
        response.addHeader("Cache-Control", "no-store");
        return response;
    }
    case AuthService::RefreshOutcome::Rejected: {
        QString why;
        switch (result.reason) {
        case TokenStore::Outcome::Unknown:
            why = u"unknown"_s;
            break;
        case TokenStore::Outcome::Expired:
            why = u"expired"_s;
            break;
        case TokenStore::Outcome::Revoked:
            why = u"revoked"_s;
            break;
        case TokenStore::Outcome::Reused:
            why = u"reused; its family is revoked"_s;
            break;
        default:
            why = u"rejected"_s;
            break;
        }
        Log::line(result.reason == TokenStore::Outcome::Reused ? Log::Kind::Warning : Log::Kind::Failure,
            u"refresh refused: token %1%2"_s.arg(
                why, result.subject.isEmpty() ? QString() : u" (account %1)"_s.arg(result.subject)));
        return jsonError(
            Status::Unauthorized, u"INVALID_REFRESH_TOKEN"_s, u"Your session has ended. Sign in to Quillet again."_s);
    }
    case AuthService::RefreshOutcome::Failed:
        break;
    }
    Log::line(Log::Kind::Failure, u"refresh failed: database error"_s);
    return jsonError(Status::InternalServerError, u"SERVER_ERROR"_s, u"The server could not refresh the session."_s);
}

void ApiServer::text(const QHttpServerRequest& request, QHttpServerResponder&& responder, bool rewrite)
{
    const auto reply = [](QHttpServerResponder& r, Status status, const QJsonObject& body) {
        r.write(QJsonDocument(body), { { "Cache-Control", "no-store" } }, status);
    };
    const char* what = rewrite ? "rewrite" : "clean-up";

    const AuthService::AccessResult access = m_auth.checkAccess(bearerToken(request));
    if (access.check != AuthService::AccessCheck::Valid) {
        const bool expired = access.check == AuthService::AccessCheck::Expired;
        Log::line(Log::Kind::Failure,
            u"%1 refused: %2 access token"_s.arg(QLatin1StringView(what), expired ? u"expired"_s : u"invalid"_s));
        reply(responder, Status::Unauthorized,
            errorBody(expired ? u"TOKEN_EXPIRED"_s : u"INVALID_TOKEN"_s, u"Sign in to Quillet again."_s));
        return;
    }

    const auto body = jsonObjectBody(request);
    if (!body || !body->value(u"text"_s).isString()) {
        reply(responder, Status::BadRequest, errorBody(u"BAD_REQUEST"_s, u"Send a JSON body with \"text\"."_s));
        return;
    }
    TextRequest textRequest;
    textRequest.text = body->value(u"text"_s).toString();
    if (textRequest.text.size() > maxTextChars) {
        Log::line(Log::Kind::Failure,
            u"%1 refused: %2 characters of text"_s.arg(QLatin1StringView(what)).arg(textRequest.text.size()));
        reply(responder, Status::PayloadTooLarge,
            errorBody(u"TEXT_TOO_LONG"_s,
                u"The text is longer than %1 characters; it is left as dictated."_s.arg(maxTextChars)));
        return;
    }
    const QJsonValue dictionary = body->value(u"dictionary"_s);
    if (!dictionary.isUndefined() && !dictionary.isNull()) {
        if (!dictionary.isArray()) {
            reply(responder, Status::BadRequest,
                errorBody(u"BAD_REQUEST"_s, u"\"dictionary\" must be an array of strings."_s));
            return;
        }
        const QJsonArray terms = dictionary.toArray();
        if (terms.size() > maxDictionaryTerms) {
            Log::line(Log::Kind::Failure,
                u"%1 refused: %2 dictionary terms"_s.arg(QLatin1StringView(what)).arg(terms.size()));
            reply(responder, Status::PayloadTooLarge,
                errorBody(u"DICTIONARY_TOO_LARGE"_s,
                    u"The dictionary has more than %1 terms; the text is left as dictated."_s.arg(maxDictionaryTerms)));
            return;
        }
        for (const QJsonValue& term : terms) {
            if (term.isString() && term.toString().size() > maxTermChars) {
                reply(responder, Status::PayloadTooLarge,
                    errorBody(u"DICTIONARY_TOO_LARGE"_s,
                        u"A dictionary term is longer than %1 characters; the text is left as dictated."_s.arg(
                            maxTermChars)));
                return;
            }
            if (!term.isString()) {
                reply(responder, Status::BadRequest,
                    errorBody(u"BAD_REQUEST"_s, u"\"dictionary\" must be an array of strings."_s));
                return;
            }
            textRequest.dictionary << term.toString();
        }
    }
    if (rewrite) {
        const QJsonValue tone = body->value(u"tone"_s);
        textRequest.tone = tone.isString() ? toneFromName(tone.toString()) : std::nullopt;
        if (!textRequest.tone) {
            reply(responder, Status::BadRequest,
                errorBody(u"UNKNOWN_TONE"_s, u"Unknown tone. Use one of: %1."_s.arg(toneNames().join(u", "_s))));
            return;
        }
    }

    // The engine may answer later (a remote model); the connection may be gone by then.
    QPointer<QTcpSocket> socket = responder.socket();
    auto pending = std::make_shared<QHttpServerResponder>(std::move(responder));
    QElapsedTimer clock;
    clock.start();
    const qsizetype words = textRequest.text.split(u' ', Qt::SkipEmptyParts).size();
    const QString tone = textRequest.tone ? toneName(*textRequest.tone) : QString();
    m_text.process(textRequest, this, [socket, pending, clock, words, tone, what, reply](const QString& result) {
        Log::line(Log::Kind::Text,
            u"%1%2: %3 words in %4 ms"_s.arg(QLatin1StringView(what), tone.isEmpty() ? QString() : u" "_s + tone)
                .arg(words)
                .arg(clock.elapsed()));
        if (!socket)
            return;
        reply(*pending, Status::Ok, QJsonObject { { u"text"_s, result } });
    });
}

void ApiServer::acceptWebSockets()
{
    while (m_http.hasPendingWebSocketConnections()) {
        std::unique_ptr<QWebSocket> socket = m_http.nextPendingWebSocketConnection();
        if (!socket)
            continue;
        // The QHttpServer would delete the socket with itself; the session owns it now.
        socket->setParent(nullptr);
        auto* session
            = new StreamSession(m_nextStreamId++, std::move(socket), m_auth, m_speech, m_counter, m_limits, this);
        ++m_connections;
        connect(session, &StreamSession::closed, this, [this, session] {
            --m_connections;
            m_unauthenticated.removeAll(session);
            session->deleteLater();
        });
        connect(session, &StreamSession::signedIn, this, [this, session] { m_unauthenticated.removeAll(session); });
        if (m_connections > m_maxConnections) {
            session->refuseBusy();
            continue;
        }
        // Strangers that never sign in must not crowd out the client: they have their own
        // few slots, and when those are full the one waiting longest makes room. A real
        // client signs in within milliseconds of connecting.
        m_unauthenticated.append(session);
        while (m_unauthenticated.size() > m_maxUnauthenticated) {
            const QPointer<StreamSession> oldest = m_unauthenticated.takeFirst();
            if (oldest)
                oldest->refuseBusy();
        }
    }
}
