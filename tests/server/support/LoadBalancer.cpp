#include "LoadBalancer.h"

#include "ServerProcess.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QTcpServer>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

quint16 freeLoopbackPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}

QString loopback(quint16 port)
{
    return u"127.0.0.1:%1"_s.arg(port);
}

} // namespace

bool LoadBalancer::available()
{
    return QFile::exists(program());
}

LoadBalancer::~LoadBalancer()
{
    stop();
}

bool LoadBalancer::start(const Backend& first, const Backend& second, QString* error)
{
    m_apiPort = freeLoopbackPort();
    m_sitePort = freeLoopbackPort();
    if (m_apiPort == 0 || m_sitePort == 0 || m_apiPort == m_sitePort) {
        *error = u"no free loopback ports for the balancer"_s;
        return false;
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"QUILLET_LB_API"_s, loopback(m_apiPort));
    environment.insert(u"QUILLET_LB_SITE"_s, loopback(m_sitePort));
    environment.insert(u"QUILLET_API_1"_s, loopback(first.apiPort));
    environment.insert(u"QUILLET_API_2"_s, loopback(second.apiPort));
    environment.insert(u"QUILLET_SITE_1"_s, loopback(first.sitePort));
    environment.insert(u"QUILLET_SITE_2"_s, loopback(second.sitePort));

    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    m_process->setProcessEnvironment(environment);
    QObject::connect(m_process.get(), &QProcess::readyReadStandardOutput, m_process.get(),
        [this] { m_output += m_process->readAllStandardOutput(); });
    m_process->start(program(), { u"-db"_s, u"-f"_s, QStringLiteral(QUILLET_DEPLOY_DIR "/haproxy.cfg") });
    if (!m_process->waitForStarted(10'000)) {
        *error = u"haproxy did not start: "_s + m_process->errorString();
        return false;
    }

    // Ready when a request goes through to a replica (or haproxy gave up).
    Http http;
    const QDeadlineTimer deadline(30'000);
    while (!deadline.hasExpired() && isRunning()) {
        if (http.get(apiUrl(u"/health"_s)).status == 200)
            return true;
        QTest::qWait(100);
    }
    *error = u"no answer through haproxy; its output:\n"_s + QString::fromUtf8(output());
    return false;
}

void LoadBalancer::stop()
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

bool LoadBalancer::isRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

QUrl LoadBalancer::apiUrl(const QString& path) const
{
    return QUrl(u"http://127.0.0.1:%1%2"_s.arg(m_apiPort).arg(path));
}

QUrl LoadBalancer::siteUrl(const QString& path) const
{
    return QUrl(u"http://127.0.0.1:%1%2"_s.arg(m_sitePort).arg(path));
}

QUrl LoadBalancer::streamUrl() const
{
    return QUrl(u"ws://127.0.0.1:%1/ws/transcribe"_s.arg(m_apiPort));
}

QByteArray LoadBalancer::output()
{
    if (m_process)
        m_output += m_process->readAllStandardOutput();
    return m_output;
}
