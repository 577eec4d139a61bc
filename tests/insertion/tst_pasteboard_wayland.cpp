// The Wayland clipboard as the program reads and writes it, in a headless sway, through
// the real wl-copy and wl-paste. A wl-paste of the test's own on the PATH notes each time
// it runs, so the test sees when the program asks the compositor and when it needs not.
#include "platform/Pasteboard.h"

#include <QCoroTask>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

int run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(5000))
        return -1;
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

class TestPasteboardWayland : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<Pasteboard> m_pasteboard;

    // The reads the program made (not its watcher), as noted by the wl-paste on the PATH.
    int reads()
    {
        QFile log(m_dir.filePath(u"wl-paste.log"_s));
        if (!log.open(QIODevice::ReadOnly))
            return 0;
        int count = 0;
        for (const QByteArray& line : log.readAll().split('\n')) {
            if (!line.isEmpty() && !line.contains("--watch"))
                ++count;
        }
        return count;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCOMPARE(qEnvironmentVariable("XDG_SESSION_TYPE"), u"wayland"_s);
        const QString real = QStandardPaths::findExecutable(u"wl-paste"_s);
        QVERIFY(!real.isEmpty());
        QFile wrapper(m_dir.filePath(u"bin/wl-paste"_s));
        QVERIFY(QDir().mkpath(m_dir.filePath(u"bin"_s)));
        QVERIFY(wrapper.open(QIODevice::WriteOnly));
        wrapper.write(("#!/bin/sh\necho \"$*\" >> '" + m_dir.filePath(u"wl-paste.log"_s).toUtf8() + "'\nexec '"
            + real.toUtf8() + "' \"$@\"\n"));
        wrapper.close();
        QVERIFY(wrapper.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
        qputenv("PATH", m_dir.filePath(u"bin"_s).toUtf8() + ':' + qgetenv("PATH"));
        m_pasteboard = makeSystemPasteboard();
        QVERIFY(m_pasteboard->canWrite());
    }

    void aClipboardEmptyAtStartIsKnownEmpty()
    {
        // Found empty when the program starts, and nothing copied since: not asked again.
        QCOMPARE(run(u"wl-copy"_s, { u"--clear"_s }), 0);
        const std::unique_ptr<Pasteboard> started = makeSystemPasteboard();
        int before = 0;
        QVERIFY(QTest::qWaitFor(
            [&] {
                before = reads();
                return !QCoro::waitFor(started->plainText()) && reads() == before;
            },
            5000));
        QCOMPARE(QCoro::waitFor(started->plainText()), std::nullopt);
        QCOMPARE(reads(), before);
    }

    void readsWhatAnotherProgramCopied()
    {
        QCOMPARE(run(u"wl-copy"_s, { u"--type"_s, u"text/plain"_s, u"from another program"_s }), 0);
        std::optional<QString> text;
        QVERIFY(QTest::qWaitFor(
            [&] { return (text = QCoro::waitFor(m_pasteboard->plainText())) == u"from another program"_s; }, 5000));
    }

    void anEmptiedClipboardIsNotAskedAgainUntilSomethingIsCopied()
    {
        QCoro::waitFor(m_pasteboard->setPlainText(u"dictated"_s));
        // Emptied by the program itself: known empty, without a read. (The watcher's word of
        // the text just written may come in while the clipboard is emptied; the program
        // then cannot tell which came last, and reads once more.)
        int before = 0;
        QVERIFY(QTest::qWaitFor(
            [&] {
                QCoro::waitFor(m_pasteboard->clear());
                before = reads();
                return !QCoro::waitFor(m_pasteboard->plainText()) && reads() == before;
            },
            5000));
        QCOMPARE(QCoro::waitFor(m_pasteboard->plainText()), std::nullopt);
        QCOMPARE(reads(), before);

        // Another program copies: the watcher says so, and the next read asks again.
        QCOMPARE(run(u"wl-copy"_s, { u"--type"_s, u"text/plain"_s, u"copied meanwhile"_s }), 0);
        std::optional<QString> text;
        QVERIFY(QTest::qWaitFor(
            [&] { return (text = QCoro::waitFor(m_pasteboard->plainText())) == u"copied meanwhile"_s; }, 5000));
        QVERIFY(reads() > before);
    }

    void aClipboardEmptiedElsewhereIsStillRead()
    {
        // No new selection appears when another program empties the clipboard: the
        // program does not know it is empty, and asks.
        QCOMPARE(run(u"wl-copy"_s, { u"--type"_s, u"text/plain"_s, u"something"_s }), 0);
        QVERIFY(QTest::qWaitFor([&] { return QCoro::waitFor(m_pasteboard->plainText()) == u"something"_s; }, 5000));
        QCOMPARE(run(u"wl-copy"_s, { u"--clear"_s }), 0);
        const int before = reads();
        QCOMPARE(QCoro::waitFor(m_pasteboard->plainText()), std::nullopt);
        QCOMPARE(reads(), before + 1);
    }

    void theTextItWritesIsRead()
    {
        QCoro::waitFor(m_pasteboard->clear());
        QCoro::waitFor(m_pasteboard->setPlainText(u"written by the program"_s));
        QCOMPARE(QCoro::waitFor(m_pasteboard->plainText()), u"written by the program"_s);
    }

    void cleanupTestCase() { m_pasteboard.reset(); }
};

QTEST_GUILESS_MAIN(TestPasteboardWayland)
#include "tst_pasteboard_wayland.moc"
