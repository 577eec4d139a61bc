#include "SiteServer.h"

#include "AuthService.h"
#include "Log.h"

#include <QUrl>
#include <QUrlQuery>

using namespace Qt::Literals::StringLiterals;
using Status = QHttpServerResponder::StatusCode;

namespace {

constexpr qsizetype maxFormBytes = 16 * 1024;

const QString& styleSheet()
{
    static const QString css = uR"(
body { margin: 0; min-height: 100vh; display: flex; align-items: center; justify-content: center;
       font-family: system-ui, -apple-system, "Segoe UI", sans-serif; background: #f4f4f6; color: #1d1d1f; }
main { background: #fff; padding: 2.5rem 2.75rem; border-radius: 16px; max-width: 26rem;
       box-shadow: 0 8px 30px rgba(0, 0, 0, .08); }
h1 { font-size: 1.5rem; margin: 0 0 .75rem; }
p { line-height: 1.5; margin: 0 0 1.25rem; }
.muted { color: #6e6e73; font-size: .9rem; }
button, .button { display: inline-block; font: inherit; font-weight: 600; color: #fff; background: #4f46e5;
       border: 0; border-radius: 10px; padding: .75rem 1.4rem; cursor: pointer; text-decoration: none; }
button.danger { background: #c0362c; }
a { color: #4f46e5; }
)"_s;
    return css;
}

QHttpServerResponse page(
    const QString& title, const QString& body, Status status = Status::Ok, const QString& extraHead = {})
{
    const QString html = u"<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"_s
        + extraHead + u"<title>"_s + title.toHtmlEscaped() + u" · Quillet</title><style>"_s + styleSheet()
        + u"</style></head><body><main>"_s + body + u"</main></body></html>\n"_s;
    QHttpServerResponse response("text/html; charset=utf-8", html.toUtf8(), status);
    // Pages may carry tokens or form tokens: keep them out of caches, frames and referrers.
    response.addHeader("Cache-Control", "no-store");
    response.addHeader("Referrer-Policy", "no-referrer");
    response.addHeader("X-Frame-Options", "DENY");
    response.addHeader("Content-Security-Policy",
        "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'; frame-ancestors 'none'");
    return response;
}

QUrlQuery formFields(const QHttpServerRequest& request)
{
    if (request.body().size() > maxFormBytes)
        return {};
    QByteArray body = request.body();
    body.replace('+', ' '); // form encoding writes spaces as '+'
    return QUrlQuery(QString::fromUtf8(body));
}

QString field(const QUrlQuery& form, const QString& name)
{
    return form.queryItemValue(name, QUrl::FullyDecoded);
}

QString hostOf(const QByteArray& hostHeader)
{
    QString host = QString::fromLatin1(hostHeader).trimmed().toLower();
    if (host.startsWith(u'[')) {
        const qsizetype end = host.indexOf(u']');
        return end < 0 ? host : host.left(end + 1);
    }
    const qsizetype colon = host.lastIndexOf(u':');
    return colon < 0 ? host : host.left(colon);
}

} // namespace

SiteServer::SiteServer(AuthService& auth, QString accountName, const QHostAddress& bindAddress, QObject* parent)
    : QObject(parent)
    , m_auth(auth)
    , m_accountName(std::move(accountName))
    , m_allowedHosts { u"127.0.0.1"_s, u"localhost"_s, u"[::1]"_s }
{
    const QString bound = bindAddress.protocol() == QAbstractSocket::IPv6Protocol ? u'[' + bindAddress.toString() + u']'
                                                                                  : bindAddress.toString();
    if (!m_allowedHosts.contains(bound))
        m_allowedHosts << bound;
    addRoutes();
}

quint16 SiteServer::listen(const QHostAddress& address, quint16 port)
{
    // Like the API, behind a gate that refuses oversized and slow requests as they arrive.
    auto gate = std::make_unique<HttpGate>(m_httpSettings);
    if (!gate->listen(address, port))
        return 0;
    const quint16 bound = gate->serverPort();
    m_http.bind(gate.release());
    return bound;
}

QString SiteServer::deepLink(const QString& accessToken, const QString& refreshToken)
{
    QUrl url;
    url.setScheme(u"quillet"_s);
    url.setHost(u"auth"_s);
    QUrlQuery query;
    // Both tokens are base64url text with dots, all of which a URL query carries as it is.
    query.addQueryItem(u"token"_s, accessToken);
    query.addQueryItem(u"refresh"_s, refreshToken);
    url.setQuery(query);
    return url.toString(QUrl::FullyEncoded);
}

// Another web site must not be able to drive these pages through the user's browser:
// the Host header must name this machine (against DNS rebinding), and a form post must
// come from our own pages when the browser says where it comes from.
bool SiteServer::trustedRequest(const QHttpServerRequest& request, bool isPost) const
{
    if (!m_allowedHosts.contains(hostOf(request.value("Host"))))
        return false;
    if (!isPost)
        return true;
    const QByteArray origin = request.value("Origin");
    if (origin.isEmpty() || origin == "null")
        return true;
    const QUrl originUrl(QString::fromLatin1(origin));
    return m_allowedHosts.contains(hostOf(originUrl.authority().toLatin1()));
}

void SiteServer::addRoutes()
{
    m_http.route(u"/"_s, QHttpServerRequest::Method::Get, [](const QHttpServerRequest&) {
        QHttpServerResponse response(Status::SeeOther);
        response.addHeader("Location", "/account");
        return response;
    });
    m_http.route(u"/signin"_s, QHttpServerRequest::Method::Get,
        [this](const QHttpServerRequest& request) { return signInPage(request); });
    m_http.route(u"/signin"_s, QHttpServerRequest::Method::Post,
        [this](const QHttpServerRequest& request) { return signIn(request); });
    m_http.route(u"/account"_s, QHttpServerRequest::Method::Get,
        [this](const QHttpServerRequest& request) { return accountPage(request); });
    m_http.route(u"/account/sign-out-everywhere"_s, QHttpServerRequest::Method::Post,
        [this](const QHttpServerRequest& request) { return signOutEverywhere(request); });
}

QHttpServerResponse SiteServer::signInPage(const QHttpServerRequest& request)
{
    if (!trustedRequest(request, false))
        return QHttpServerResponse(
            "text/plain", "This page only answers on this computer's own address.\n", Status::Forbidden);
    const QString source = request.query().queryItemValue(u"source"_s, QUrl::FullyDecoded);
    const QString body
        = u"<h1>Sign in to Quillet</h1>"
          "<p>This computer runs Quillet's own server, so dictation works without an internet connection. "
          "Sign in as <strong>%1</strong> and Quillet opens with your account.</p>"
          "<form method=\"post\" action=\"/signin\">"
          "<input type=\"hidden\" name=\"form\" value=\"%2\">"
          "<input type=\"hidden\" name=\"source\" value=\"%3\">"
          "<button type=\"submit\">Sign in on this computer</button></form>"
          "<p class=\"muted\">Your account lives on this computer only. <a href=\"/account\">Account</a></p>"_s.arg(
              m_accountName.toHtmlEscaped(), m_auth.formToken(u"signin"_s), source.toHtmlEscaped());
    return page(u"Sign in"_s, body);
}

QHttpServerResponse SiteServer::signIn(const QHttpServerRequest& request)
{
    if (!trustedRequest(request, true))
        return QHttpServerResponse(
            "text/plain", "Sign-in only works from this computer's own pages.\n", Status::Forbidden);
    const QUrlQuery form = formFields(request);
    const QString source = field(form, u"source"_s);
    if (!m_auth.useFormToken(u"signin"_s, field(form, u"form"_s))) {
        Log::line(Log::Kind::Failure, u"sign-in refused: stale or missing form token"_s);
        const QString again = u"/signin?source="_s + QString::fromLatin1(QUrl::toPercentEncoding(source));
        return page(u"Sign in"_s,
            u"<h1>Let's try that again</h1><p>This sign-in page was open for too long.</p>"
            "<a class=\"button\" href=\"%1\">Back to sign-in</a>"_s.arg(again.toHtmlEscaped()),
            Status::Forbidden);
    }
    const auto tokens = m_auth.signIn(m_accountName);
    if (!tokens) {
        Log::line(Log::Kind::Failure, u"sign-in failed: database error"_s);
        return page(u"Sign in"_s,
            u"<h1>Something went wrong</h1><p>The server could not sign you in. "
            "Its log says why.</p>"_s,
            Status::InternalServerError);
    }
    Log::line(Log::Kind::Key, u"signed in %1 (source %2)"_s.arg(m_accountName, source.isEmpty() ? u"none"_s : source));
    const QString link = deepLink(tokens->accessToken, tokens->refreshToken).toHtmlEscaped();
    // The refresh opens the desktop client at once; the link is there for browsers that
    // ask first or refuse to follow a refresh into another application.
    const QString head = u"<meta http-equiv=\"refresh\" content=\"0;url=%1\">"_s.arg(link);
    const QString body
        = u"<h1>You're signed in</h1>"
          "<p>Quillet should open now and finish signing in.</p>"
          "<a class=\"button\" id=\"open-app\" href=\"%1\">Open Quillet</a>"
          "<p class=\"muted\" style=\"margin-top:1.25rem\">You can close this tab afterwards.</p>"_s.arg(link);
    return page(u"Signed in"_s, body, Status::Ok, head);
}

QHttpServerResponse SiteServer::accountPage(const QHttpServerRequest& request)
{
    if (!trustedRequest(request, false))
        return QHttpServerResponse(
            "text/plain", "This page only answers on this computer's own address.\n", Status::Forbidden);
    const int active = m_auth.activeSignIns(m_accountName);
    const QString sessions = active < 0 ? u"The server could not count your sign-ins."_s
        : active == 0                   ? u"No Quillet app is signed in with it right now."_s
        : active == 1                   ? u"One Quillet sign-in is active."_s
                                        : u"%1 Quillet sign-ins are active."_s.arg(active);
    // With nothing signed in, offer the way in rather than a button that would do nothing.
    const QString action = active == 0
        ? u"<a class=\"button\" href=\"/signin?source=mac-app\">Sign in on this computer</a>"_s
        : u"<form method=\"post\" action=\"/account/sign-out-everywhere\">"
          "<input type=\"hidden\" name=\"form\" value=\"%1\">"
          "<button class=\"danger\" type=\"submit\">Sign out everywhere</button></form>"
          "<p class=\"muted\" style=\"margin-top:1.25rem\">Signing out everywhere ends every Quillet sign-in at once; "
          "each app asks you to sign in again.</p>"_s.arg(m_auth.formToken(u"signout"_s));
    const QString body
        = u"<h1>Your account</h1><p>This computer's Quillet account is <strong>%1</strong>. %2</p>%3"_s.arg(
            m_accountName.toHtmlEscaped(), sessions, action);
    return page(u"Account"_s, body);
}

QHttpServerResponse SiteServer::signOutEverywhere(const QHttpServerRequest& request)
{
    if (!trustedRequest(request, true))
        return QHttpServerResponse(
            "text/plain", "Sign-out only works from this computer's own pages.\n", Status::Forbidden);
    const QUrlQuery form = formFields(request);
    if (!m_auth.useFormToken(u"signout"_s, field(form, u"form"_s))) {
        return page(u"Account"_s,
            u"<h1>Let's try that again</h1><p>This page was open for too long.</p>"
            "<a class=\"button\" href=\"/account\">Back to your account</a>"_s,
            Status::Forbidden);
    }
    const int ended = m_auth.signOutEverywhere(m_accountName);
    if (ended < 0) {
        Log::line(Log::Kind::Failure, u"sign-out everywhere failed: database error"_s);
        return page(u"Account"_s, u"<h1>Something went wrong</h1><p>The server could not sign you out.</p>"_s,
            Status::InternalServerError);
    }
    Log::line(Log::Kind::Key, u"signed out everywhere: %1 sign-ins ended for %2"_s.arg(ended).arg(m_accountName));
    return page(u"Signed out"_s,
        u"<h1>Signed out everywhere</h1><p>Every Quillet sign-in has ended. "
        "Sign in again from the app when you want to dictate.</p>"
        "<a class=\"button\" href=\"/signin?source=mac-app\">Sign in again</a>"_s);
}
