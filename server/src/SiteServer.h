#pragma once

#include "HttpGate.h"

#include <QHostAddress>
#include <QHttpServer>
#include <QObject>

class AuthService;

// The web site: a sign-in page whose button hands fresh tokens to the desktop client
// through its quillet://auth deep link, and an account page that can sign out everywhere.
// Plain HTML forms, no JavaScript.
class SiteServer final : public QObject
{
    Q_OBJECT
public:
    SiteServer(AuthService& auth, QString accountName, const QHostAddress& bindAddress, QObject* parent = nullptr);

    // Limits and timers of the HTTP connections; set before listen().
    void setHttpSettings(const HttpGateSettings& settings) { m_httpSettings = settings; }
    quint16 listen(const QHostAddress& address, quint16 port);

    static QString deepLink(const QString& accessToken, const QString& refreshToken);

private:
    void addRoutes();
    bool trustedRequest(const QHttpServerRequest& request, bool isPost) const;
    QHttpServerResponse signInPage(const QHttpServerRequest& request);
    QHttpServerResponse signIn(const QHttpServerRequest& request);
    QHttpServerResponse accountPage(const QHttpServerRequest& request);
    QHttpServerResponse signOutEverywhere(const QHttpServerRequest& request);

    AuthService& m_auth;
    QString m_accountName;
    QStringList m_allowedHosts;
    HttpGateSettings m_httpSettings;
    QHttpServer m_http;
};
