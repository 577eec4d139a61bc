#include "ServerProcess.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QMessageAuthenticationCode>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTimer>
#include <QUrlQuery>

using namespace Qt::Literals::StringLiterals;

ServerProcess::ServerProcess(QStringList extraArguments)
    : m_arguments(std::move(extraArguments))
{ }

ServerProcess::~ServerProcess()
{
    stop();
}

bool ServerProcess::start(QString* error)
{
    return launch(error) && waitReady(error);
}

bool ServerProcess::launch(QString* error)
{
    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::SeparateChannels);
    m_process->setReadChannel(QProcess::StandardOutput);
    m_process->setProcessEnvironment(m_environment);
    QStringList arguments { u"--api-port"_s, u"0"_s, u"--site-port"_s, u"0"_s, u"--data-dir"_s,
        m_dataDir.path() + u"/data"_s };
    arguments += m_arguments;
    m_process->start(QStringLiteral(QUILLET_SERVER_BINARY), arguments);
    if (!m_process->waitForStarted(10'000)) {
        *error = u"the server did not start: "_s + m_process->errorString();
        return false;
    }
    return true;
}

bool ServerProcess::waitReady(QString* error)
{
    static const QRegularExpression apiLine(u"API listening on http://[^:]+:(\\d+)"_s);
    static const QRegularExpression siteLine(u"web site listening on http://[^:]+:(\\d+)"_s);
    const QDeadlineTimer deadline(30'000);
    while (!deadline.hasExpired() && (m_apiPort == 0 || m_sitePort == 0)) {
        if (!m_process->waitForReadyRead(int(std::max<qint64>(1, deadline.remainingTime())))) {
            if (m_process->state() != QProcess::Running)
                break;
            continue;
        }
        m_output += m_process->readAllStandardOutput();
        const QString text = QString::fromUtf8(m_output);
        if (const auto match = apiLine.match(text); match.hasMatch())
            m_apiPort = quint16(match.captured(1).toUInt());
        if (const auto match = siteLine.match(text); match.hasMatch())
            m_sitePort = quint16(match.captured(1).toUInt());
    }
    if (m_apiPort == 0 || m_sitePort == 0) {
        *error = u"the server did not report its ports; output:\n"_s + QString::fromUtf8(m_output)
            + QString::fromUtf8(m_process->readAllStandardError());
        return false;
    }
    QObject::connect(m_process.get(), &QProcess::readyReadStandardOutput, m_process.get(),
        [this] { m_output += m_process->readAllStandardOutput(); });
    return true;
}

void ServerProcess::stop()
{
    if (!m_process)
        return;
    if (m_process->state() == QProcess::Running) {
        m_process->terminate();
        if (!m_process->waitForFinished(10'000)) {
            m_process->kill();
            m_process->waitForFinished(5'000);
        }
    }
    m_output += m_process->readAllStandardOutput();
    m_process.reset();
}

bool ServerProcess::isRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

qint64 ServerProcess::processId() const
{
    return m_process ? m_process->processId() : 0;
}

QUrl ServerProcess::apiUrl(const QString& path) const
{
    return QUrl(u"http://127.0.0.1:%1%2"_s.arg(m_apiPort).arg(path));
}

QUrl ServerProcess::siteUrl(const QString& path) const
{
    return QUrl(u"http://127.0.0.1:%1%2"_s.arg(m_sitePort).arg(path));
}

QUrl ServerProcess::streamUrl() const
{
    return QUrl(u"ws://127.0.0.1:%1/ws/transcribe"_s.arg(m_apiPort));
}

QByteArray ServerProcess::signingKey() const
{
    QFile file(m_dataDir.path() + u"/data/signing.key"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

QByteArray ServerProcess::output()
{
    if (m_process)
        m_output += m_process->readAllStandardOutput();
    return m_output;
}

QJsonObject HttpResult::json() const
{
    return QJsonDocument::fromJson(body).object();
}

HttpResult Http::wait(QNetworkReply* reply)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(30'000, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    HttpResult result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    result.headers = reply->rawHeaderPairs();
    reply->deleteLater();
    return result;
}

HttpResult Http::get(const QUrl& url, const QList<QPair<QByteArray, QByteArray>>& headers)
{
    QNetworkRequest request(url);
    for (const auto& [name, value] : headers)
        request.setRawHeader(name, value);
    return wait(m_network.get(request));
}

HttpResult Http::post(const QUrl& url, const QByteArray& body, const QByteArray& contentType,
    const QList<QPair<QByteArray, QByteArray>>& headers)
{
    QNetworkRequest request(url);
    request.setRawHeader("Content-Type", contentType);
    for (const auto& [name, value] : headers)
        request.setRawHeader(name, value);
    return wait(m_network.post(request, body));
}

HttpResult Http::postJson(const QUrl& url, const QJsonObject& body, const QByteArray& bearer)
{
    QList<QPair<QByteArray, QByteArray>> headers;
    if (!bearer.isEmpty())
        headers.append({ "Authorization", "Bearer " + bearer });
    return post(url, QJsonDocument(body).toJson(QJsonDocument::Compact), "application/json", headers);
}

TokenPair signInThroughSite(Http& http, const ServerProcess& server, QString* error)
{
    TokenPair pair;
    const HttpResult page = http.get(server.siteUrl(u"/signin?source=mac-app"_s));
    if (page.status != 200) {
        *error = u"sign-in page answered %1"_s.arg(page.status);
        return pair;
    }
    static const QRegularExpression formField(u"name=\"form\" value=\"([^\"]+)\""_s);
    const auto form = formField.match(QString::fromUtf8(page.body));
    if (!form.hasMatch()) {
        *error = u"sign-in page has no form token"_s;
        return pair;
    }
    const QByteArray body = "form=" + QUrl::toPercentEncoding(form.captured(1)) + "&source=mac-app";
    const HttpResult answer = http.post(server.siteUrl(u"/signin"_s), body, "application/x-www-form-urlencoded");
    if (answer.status != 200) {
        *error = u"sign-in answered %1"_s.arg(answer.status);
        return pair;
    }
    static const QRegularExpression link(u"id=\"open-app\" href=\"([^\"]+)\""_s);
    const auto match = link.match(QString::fromUtf8(answer.body));
    if (!match.hasMatch()) {
        *error = u"no deep link in the answer"_s;
        return pair;
    }
    pair.deepLink = match.captured(1).replace(u"&amp;"_s, u"&"_s);
    const QUrl url(pair.deepLink);
    const QUrlQuery query(url);
    pair.access = query.queryItemValue(u"token"_s, QUrl::FullyDecoded);
    pair.refresh = query.queryItemValue(u"refresh"_s, QUrl::FullyDecoded);
    return pair;
}

QByteArray makeJwt(const QJsonObject& header, const QJsonObject& payload, const QByteArray& key)
{
    constexpr auto options = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;
    const QByteArray input = QJsonDocument(header).toJson(QJsonDocument::Compact).toBase64(options) + '.'
        + QJsonDocument(payload).toJson(QJsonDocument::Compact).toBase64(options);
    return input + '.' + QMessageAuthenticationCode::hash(input, key, QCryptographicHash::Sha256).toBase64(options);
}

QJsonObject jwtPayload(const QString& token)
{
    const QStringList parts = token.split(u'.');
    if (parts.size() != 3)
        return {};
    const auto decoded = QByteArray::fromBase64Encoding(
        parts.at(1).toLatin1(), QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
    return QJsonDocument::fromJson(decoded.decoded).object();
}
