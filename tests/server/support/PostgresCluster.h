#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A private PostgreSQL 15 cluster in a temporary directory, listening on a free loopback
// port (and a unix socket in the same directory) with password authentication over TCP.
// PostgreSQL refuses to run as root, so when the tests run as root the cluster belongs to
// the unprivileged user "nobody" and its programs run through setpriv.
class PostgresCluster
{
public:
    static QString binDir() { return QStringLiteral("/usr/lib/postgresql/15/bin"); }
    // initdb, pg_ctl and postgres are there (Debian package postgresql-15).
    static bool available();

    PostgresCluster();
    ~PostgresCluster();
    PostgresCluster(const PostgresCluster&) = delete;
    PostgresCluster& operator=(const PostgresCluster&) = delete;

    // initdb, start, and create the database `database()` owned by `user()`.
    bool start(QString* error);
    void stop();
    // A fast shutdown and a start: every client connection is cut.
    bool restart(QString* error);

    quint16 port() const { return m_port; }
    QString user() const { return QStringLiteral("quillet"); }
    QString database() const { return QStringLiteral("quillet"); }
    QString passwordFile() const { return m_dir.path() + QStringLiteral("/password"); }
    QString password() const { return m_password; }
    // postgresql://quillet@127.0.0.1:<port>/quillet, without the password.
    QString url() const;
    QString log() const;

private:
    bool run(const QString& program, const QStringList& arguments, QString* error, int timeoutMs = 120'000);

    QTemporaryDir m_dir;
    QString m_password;
    quint16 m_port = 0;
    bool m_running = false;
    // When root: run the cluster's programs as this user and group.
    bool m_dropPrivileges = false;
    uint m_uid = 0;
    uint m_gid = 0;
};
