#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>

// The real quillet-server binary on loopback ports it picks itself (port 0), with a
// temporary data directory. Its standard output is kept for assertions on log lines.
class ServerProcess
{
public:
    explicit ServerProcess(QStringList extraArguments = {});
    ~ServerProcess();

    void setEnvironment(const QProcessEnvironment& environment) { m_environment = environment; }
    bool start(QString* error);
    // start() in two halves, so that several servers can be started at the same moment.
    bool launch(QString* error);
    bool waitReady(QString* error);
    void stop();
    bool isRunning() const;
    qint64 processId() const;

    quint16 apiPort() const { return m_apiPort; }
    quint16 sitePort() const { return m_sitePort; }
    QUrl apiUrl(const QString& path) const;
    QUrl siteUrl(const QString& path) const;
    QUrl streamUrl() const;
    QString dataDir() const { return m_dataDir.path(); }
    QByteArray signingKey() const;
    QByteArray output();

private:
    QStringList m_arguments;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
    QTemporaryDir m_dataDir;
    std::unique_ptr<QProcess> m_process;
    QByteArray m_output;
    quint16 m_apiPort = 0;
    quint16 m_sitePort = 0;
};

struct HttpResult {
    int status = 0;
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;
    QJsonObject json() const;
};

// Blocking HTTP helpers for tests (they spin an event loop while waiting).
class Http
{
public:
    HttpResult get(const QUrl& url, const QList<QPair<QByteArray, QByteArray>>& headers = {});
    HttpResult post(const QUrl& url, const QByteArray& body, const QByteArray& contentType,
        const QList<QPair<QByteArray, QByteArray>>& headers = {});
    HttpResult postJson(const QUrl& url, const QJsonObject& body, const QByteArray& bearer = {});

private:
    HttpResult wait(class QNetworkReply* reply);
    QNetworkAccessManager m_network;
};

struct TokenPair {
    QString access;
    QString refresh;
    QString deepLink;
};

// Signs in through the web pages exactly as a browser would: GET the page, POST its form,
// read the deep link the answer opens.
TokenPair signInThroughSite(Http& http, const ServerProcess& server, QString* error);

// HS256 token made by the test itself, for forged and expired cases.
QByteArray makeJwt(const QJsonObject& header, const QJsonObject& payload, const QByteArray& key);
QJsonObject jwtPayload(const QString& token);
