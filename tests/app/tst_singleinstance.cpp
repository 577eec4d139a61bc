#include "StdoutCapture.h"
#include "app/SingleInstance.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Another local user: nobody. The tests run as root, so they can act as anyone.
constexpr uid_t otherUid = 65534;
constexpr gid_t otherGid = 65534;

// A process of the other user that listens on each of these paths and writes
// whatever it receives to `record`; it stops when killed.
pid_t listenAsOtherUser(const QStringList& paths, const QString& record)
{
    QList<QByteArray> encoded;
    for (const QString& path : paths)
        encoded.append(QFile::encodeName(path));
    const QByteArray recordPath = QFile::encodeName(record);
    const pid_t child = ::fork();
    if (child != 0)
        return child;
    // The child uses system calls only, then _exit().
    if (::setresgid(otherGid, otherGid, otherGid) != 0 || ::setresuid(otherUid, otherUid, otherUid) != 0)
        ::_exit(3);
    std::vector<pollfd> listeners;
    for (const QByteArray& path : encoded) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.constData(), sizeof address.sun_path - 1);
        ::unlink(path.constData());
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 4) != 0)
            continue; // not allowed there: the point of the private directory
        ::chmod(path.constData(), 0777);
        listeners.push_back({ fd, POLLIN, 0 });
    }
    const int out = ::open(recordPath.constData(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    for (;;) {
        if (::poll(listeners.data(), listeners.size(), -1) <= 0)
            continue;
        for (pollfd& listener : listeners) {
            if (!(listener.revents & POLLIN))
                continue;
            const int peer = ::accept(listener.fd, nullptr, nullptr);
            char buffer[4096];
            ssize_t n = 0;
            while ((n = ::read(peer, buffer, sizeof buffer)) > 0)
                (void)::write(out, buffer, static_cast<size_t>(n));
            ::close(peer);
        }
    }
}

void stop(pid_t child)
{
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

bool existsAsSocket(const QString& path)
{
    struct stat info {
    };
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISSOCK(info.st_mode);
}

QString contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

// Where the single-instance socket may live, and who may talk to it. Each test
// runs with its own temp directory (TMPDIR, world-writable and sticky like /tmp) and
// no XDG_RUNTIME_DIR unless it sets one.
class TestSingleInstance : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_tmp;
    std::unique_ptr<QTemporaryDir> m_home;
    QString m_record;

    QString ownPrivateDir() const { return m_tmp->path() + u"/quillet-"_s + QString::number(::getuid()); }

private Q_SLOTS:
    void initTestCase() { QVERIFY2(::getuid() == 0, "these tests act as another user, which needs root"); }
    void init()
    {
        m_tmp = std::make_unique<QTemporaryDir>();
        m_home = std::make_unique<QTemporaryDir>();
        QVERIFY(::chmod(QFile::encodeName(m_tmp->path()).constData(), 01777) == 0);
        qputenv("TMPDIR", QFile::encodeName(m_tmp->path()));
        qputenv("XDG_CACHE_HOME", QFile::encodeName(m_home->path() + u"/cache"_s));
        qunsetenv("XDG_RUNTIME_DIR");
        m_record = m_tmp->path() + u"/received"_s;
    }
    void cleanup()
    {
        qunsetenv("TMPDIR");
        qunsetenv("XDG_CACHE_HOME");
    }

    void withoutARuntimeDirectoryAPrivateOneIsMade()
    {
        const QString path = SingleInstance::socketPath();
        QCOMPARE(path, ownPrivateDir() + u"/quillet.socket"_s);
        struct stat info {
        };
        QCOMPARE(::lstat(QFile::encodeName(ownPrivateDir()).constData(), &info), 0);
        QVERIFY(S_ISDIR(info.st_mode));
        QCOMPARE(info.st_mode & 0777, 0700u);
        QCOMPARE(info.st_uid, ::getuid());

        SingleInstance first;
        QVERIFY(first.listen());
        QSignalSpy received(&first, &SingleInstance::linkReceived);
        bool handedOver = false;
        std::thread later([&] { handedOver = SingleInstance::handOver({ u"quillet://auth?x"_s }); });
        QTRY_COMPARE(received.count(), 1);
        later.join();
        QVERIFY(handedOver);
        QCOMPARE(received.first().first().toString(), u"quillet://auth?x"_s);
    }

    void anotherUsersListenerNeverGetsTheLink()
    {
        // Another user got there first: the places a runtime directory would fall back to
        // in the shared temp directory are theirs, and they listen in all of them.
        for (const QString& dir : { u"/runtime-root"_s, u"/quillet-0"_s }) {
            const QByteArray path = QFile::encodeName(m_tmp->path() + dir);
            QCOMPARE(::mkdir(path.constData(), 0777), 0);
            QCOMPARE(::chown(path.constData(), otherUid, otherGid), 0);
            QCOMPARE(::chmod(path.constData(), 0777), 0);
        }
        const QStringList traps { m_tmp->path() + u"/quillet.socket"_s, m_tmp->path() + u"/quillet-0/quillet.socket"_s,
            m_tmp->path() + u"/runtime-root/quillet.socket"_s };
        const pid_t attacker = listenAsOtherUser(traps, m_record);
        QVERIFY(attacker > 0);
        auto stopAttacker = qScopeGuard([&] { stop(attacker); });
        QTRY_VERIFY(existsAsSocket(traps.at(0)) && existsAsSocket(traps.at(1)) && existsAsSocket(traps.at(2)));

        StdoutCapture out;
        const QString link = u"quillet://auth?token=VICTIM-TOKEN&refresh=VICTIM-REFRESH"_s;
        QVERIFY(!SingleInstance::handOver({ link }, 1000));
        QTest::qWait(200);
        QCOMPARE(contentsOf(m_record), QString());
        // And it says why.
        QVERIFY2(out.text().contains(u"not using "_s + m_tmp->path()
                     + u"/quillet-0 for the single-instance socket: it belongs to another user (uid 65534)"_s),
            qPrintable(out.text()));
        // The program still finds a private place of its own (the cache directory) and runs.
        SingleInstance instance;
        QVERIFY(instance.listen());
        QCOMPARE(SingleInstance::socketPath(), m_home->path() + u"/cache/quillet/quillet.socket"_s);
    }

    void aRuntimeDirectoryOfAnotherUserIsNotUsed()
    {
        const QString runtime = m_tmp->path() + u"/other-runtime"_s;
        QVERIFY(QDir().mkdir(runtime));
        QCOMPARE(::chown(QFile::encodeName(runtime).constData(), otherUid, otherGid), 0);
        QCOMPARE(::chmod(QFile::encodeName(runtime).constData(), 0700), 0);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime));
        StdoutCapture out;
        QCOMPARE(SingleInstance::socketPath(), ownPrivateDir() + u"/quillet.socket"_s);
        QVERIFY(out.text().contains(u"it belongs to another user (uid 65534)"_s));
        qunsetenv("XDG_RUNTIME_DIR");
    }

    void aRuntimeDirectoryOpenToOthersIsNotUsed()
    {
        const QString runtime = m_tmp->path() + u"/open-runtime"_s;
        QVERIFY(QDir().mkdir(runtime));
        QCOMPARE(::chmod(QFile::encodeName(runtime).constData(), 0777), 0);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime));
        StdoutCapture out;
        QCOMPARE(SingleInstance::socketPath(), ownPrivateDir() + u"/quillet.socket"_s);
        QVERIFY2(out.text().contains(u"others may use it (mode 0777)"_s), qPrintable(out.text()));
        qunsetenv("XDG_RUNTIME_DIR");
    }

    void aSymbolicLinkInPlaceOfThePrivateDirectoryIsNotUsed()
    {
        // Pointing at a directory of ours would still be a trap someone else laid.
        const QString target = m_tmp->path() + u"/elsewhere"_s;
        QVERIFY(QDir().mkdir(target));
        QCOMPARE(::chmod(QFile::encodeName(target).constData(), 0700), 0);
        QVERIFY(QFile::link(target, ownPrivateDir()));
        StdoutCapture out;
        QCOMPARE(SingleInstance::socketPath(), m_home->path() + u"/cache/quillet/quillet.socket"_s);
        QVERIFY(out.text().contains(u"it is a symbolic link"_s));
    }

    void aSocketOfAnotherUserInOurDirectoryIsNeitherUsedNorReplaced()
    {
        // Only root could do this to us; the socket's owner is checked all the same, and
        // the peer's user id after connecting.
        QCOMPARE(SingleInstance::socketPath(), ownPrivateDir() + u"/quillet.socket"_s);
        QCOMPARE(::chmod(QFile::encodeName(ownPrivateDir()).constData(), 0777), 0);
        const QString socket = ownPrivateDir() + u"/quillet.socket"_s;
        const pid_t attacker = listenAsOtherUser({ socket }, m_record);
        auto stopAttacker = qScopeGuard([&] { stop(attacker); });
        QTRY_VERIFY(existsAsSocket(socket));
        QCOMPARE(::chmod(QFile::encodeName(ownPrivateDir()).constData(), 0700), 0);

        StdoutCapture out;
        QVERIFY(!SingleInstance::handOver({ u"quillet://auth?token=T"_s }, 1000));
        SingleInstance instance;
        QVERIFY(!instance.listen());
        QTest::qWait(200);
        QCOMPARE(contentsOf(m_record), QString());
        QVERIFY2(out.text().contains(
                     u"/quillet.socket for the single-instance socket: it belongs to another user (uid 65534)"_s),
            qPrintable(out.text()));
    }

    void aClientOfAnotherUserIsRefused()
    {
        SingleInstance instance;
        QVERIFY(instance.listen());
        QSignalSpy received(&instance, &SingleInstance::linkReceived);
        QSignalSpy activated(&instance, &SingleInstance::activated);
        // Opened up by hand, so that the other user can reach the socket at all.
        const QByteArray socketPath = QFile::encodeName(SingleInstance::socketPath());
        QCOMPARE(::chmod(QFile::encodeName(ownPrivateDir()).constData(), 0755), 0);
        QCOMPARE(::chmod(socketPath.constData(), 0777), 0);

        StdoutCapture out;
        const pid_t intruder = ::fork();
        if (intruder == 0) {
            if (::setresgid(otherGid, otherGid, otherGid) != 0 || ::setresuid(otherUid, otherUid, otherUid) != 0)
                ::_exit(3);
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address {};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, socketPath.constData(), sizeof address.sun_path - 1);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
                ::_exit(4);
            const char message[] = "quillet://auth?token=FORGED&refresh=FORGED\n";
            (void)::write(fd, message, sizeof message - 1);
            ::_exit(0);
        }
        int status = 0;
        QCOMPARE(::waitpid(intruder, &status, 0), intruder);
        QCOMPARE(WEXITSTATUS(status), 0); // it did reach the socket
        QTRY_VERIFY(
            out.text().contains(u"refused a connection to the single-instance socket from another user (uid 65534)"_s));
        QTest::qWait(200);
        QCOMPARE(received.count(), 0);
        QCOMPARE(activated.count(), 0);
    }
};

QTEST_GUILESS_MAIN(TestSingleInstance)
#include "tst_singleinstance.moc"
