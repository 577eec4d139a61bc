#include "PostgresCluster.h"

#include <QFile>
#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTcpServer>

#include <pwd.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

quint16 freeLoopbackPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}

} // namespace

bool PostgresCluster::available()
{
    for (const char* program : { "initdb", "pg_ctl", "postgres" }) {
        if (!QFile::exists(binDir() + u'/' + QLatin1StringView(program)))
            return false;
    }
    return true;
}

PostgresCluster::PostgresCluster()
{
    QByteArray raw(18, Qt::Uninitialized);
    QRandomGenerator::system()->generate(raw.begin(), raw.end());
    m_password = QString::fromLatin1(raw.toBase64(QByteArray::Base64UrlEncoding));
}

PostgresCluster::~PostgresCluster()
{
    stop();
}

QString PostgresCluster::url() const
{
    return u"postgresql://%1@127.0.0.1:%2/%3"_s.arg(user()).arg(m_port).arg(database());
}

QString PostgresCluster::log() const
{
    QFile file(m_dir.path() + u"/postgres.log"_s);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool PostgresCluster::run(const QString& program, const QStringList& arguments, QString* error, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(m_dir.path());
    if (m_dropPrivileges) {
        process.start(u"setpriv"_s,
            QStringList { u"--reuid=%1"_s.arg(m_uid), u"--regid=%1"_s.arg(m_gid), u"--clear-groups"_s, u"--"_s,
                binDir() + u'/' + program }
                + arguments);
    } else {
        process.start(binDir() + u'/' + program, arguments);
    }
    if (!process.waitForFinished(timeoutMs) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        *error = u"%1 failed: %2\n%3"_s.arg(program, process.errorString(), QString::fromLocal8Bit(process.readAll()));
        process.kill();
        process.waitForFinished(5'000);
        return false;
    }
    return true;
}

bool PostgresCluster::start(QString* error)
{
    if (!m_dir.isValid()) {
        *error = u"cannot make a temporary directory"_s;
        return false;
    }
    if (::geteuid() == 0) {
        const passwd* nobody = ::getpwnam("nobody");
        if (!nobody) {
            *error = u"running as root, and there is no user \"nobody\" to run PostgreSQL as"_s;
            return false;
        }
        m_dropPrivileges = true;
        m_uid = nobody->pw_uid;
        m_gid = nobody->pw_gid;
    }
    QFile password(passwordFile());
    if (!password.open(QIODevice::WriteOnly) || password.write(m_password.toUtf8() + '\n') <= 0) {
        *error = u"cannot write %1"_s.arg(passwordFile());
        return false;
    }
    password.close();
    if (m_dropPrivileges
        && (::chown(QFile::encodeName(m_dir.path()).constData(), m_uid, m_gid) != 0
            || ::chown(QFile::encodeName(passwordFile()).constData(), m_uid, m_gid) != 0)) {
        *error = u"cannot hand %1 to the PostgreSQL user"_s.arg(m_dir.path());
        return false;
    }

    const QString data = m_dir.path() + u"/data"_s;
    if (!run(u"initdb"_s,
            { u"-D"_s, data, u"-U"_s, user(), u"--pwfile"_s, passwordFile(), u"--auth-local=trust"_s,
                u"--auth-host=scram-sha-256"_s, u"-E"_s, u"UTF8"_s, u"--no-locale"_s, u"--no-sync"_s },
            error))
        return false;

    m_port = freeLoopbackPort();
    if (m_port == 0) {
        *error = u"no free loopback port"_s;
        return false;
    }
    // A test database: nothing needs to survive a crash, so no fsync.
    const QString settings = u"-c listen_addresses=127.0.0.1 -p %1 -c unix_socket_directories=%2 -c fsync=off "
                             "-c max_connections=40"_s.arg(m_port)
                                 .arg(m_dir.path());
    if (!run(u"pg_ctl"_s,
            { u"-D"_s, data, u"-l"_s, m_dir.path() + u"/postgres.log"_s, u"-o"_s, settings, u"-w"_s, u"-t"_s, u"60"_s,
                u"start"_s },
            error)) {
        error->append(log());
        return false;
    }
    m_running = true;

    bool created = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(u"QPSQL"_s, u"cluster-setup"_s);
        db.setHostName(u"127.0.0.1"_s);
        db.setPort(m_port);
        db.setDatabaseName(u"postgres"_s);
        db.setUserName(user());
        db.setPassword(m_password);
        if (!db.open()) {
            *error = u"cannot connect to the new cluster: "_s + db.lastError().text();
        } else {
            QSqlQuery query(db);
            created = query.exec(u"CREATE DATABASE %1"_s.arg(database()));
            if (!created)
                *error = u"cannot create the database: "_s + query.lastError().text();
            db.close();
        }
    }
    QSqlDatabase::removeDatabase(u"cluster-setup"_s);
    return created;
}

bool PostgresCluster::restart(QString* error)
{
    // Without -o, pg_ctl starts the server again with the settings it had.
    return run(u"pg_ctl"_s,
        { u"-D"_s, m_dir.path() + u"/data"_s, u"-l"_s, m_dir.path() + u"/postgres.log"_s, u"-m"_s, u"fast"_s, u"-w"_s,
            u"-t"_s, u"60"_s, u"restart"_s },
        error);
}

void PostgresCluster::stop()
{
    if (!m_running)
        return;
    m_running = false;
    QString error;
    if (!run(u"pg_ctl"_s, { u"-D"_s, m_dir.path() + u"/data"_s, u"-m"_s, u"fast"_s, u"-w"_s, u"stop"_s }, &error))
        qWarning("%s", qPrintable(error));
}
