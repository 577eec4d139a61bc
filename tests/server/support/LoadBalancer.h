#pragma once

#include <QProcess>
#include <QString>
#include <QUrl>

#include <memory>

// HAProxy in the foreground with the repository's server/deploy/haproxy.cfg, its addresses
// given through the environment variables the file reads: the balancer on two free
// loopback ports, in front of two quillet-server replicas.
class LoadBalancer
{
public:
    static QString program() { return QStringLiteral("/usr/sbin/haproxy"); }
    static bool available();

    LoadBalancer() = default;
    ~LoadBalancer();
    LoadBalancer(const LoadBalancer&) = delete;
    LoadBalancer& operator=(const LoadBalancer&) = delete;

    struct Backend {
        quint16 apiPort = 0;
        quint16 sitePort = 0;
    };
    // Starts HAProxy and waits until /health answers 200 through it.
    bool start(const Backend& first, const Backend& second, QString* error);
    void stop();
    bool isRunning() const;

    QUrl apiUrl(const QString& path) const;
    QUrl siteUrl(const QString& path) const;
    QUrl streamUrl() const;
    QByteArray output();

private:
    std::unique_ptr<QProcess> m_process;
    QByteArray m_output;
    quint16 m_apiPort = 0;
    quint16 m_sitePort = 0;
};
