#include "RecordingCaptureDelegate.h"
#include "dictation/AudioCaptureManager.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

// Capture where there is no sound server to speak of: start() must come back with a
// sentence a user understands, never hang on the key-down path.
class TestCaptureNoServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void noSoundServerInTheSession();
    void aServerAddressWhereNothingListens();
    void aServerThatNeverAnswers();
    void cleanup();

private:
    QTemporaryDir m_dir;
};

void TestCaptureNoServer::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY2(!qEnvironmentVariableIsSet("QUILLET_MIC_SOURCE"), "run inside scripts/desktop-session.sh --no-sound");
}

void TestCaptureNoServer::cleanup()
{
    qunsetenv("PULSE_SERVER");
}

void TestCaptureNoServer::noSoundServerInTheSession()
{
    // The session has no daemon, and nothing may start one for us.
    qunsetenv("PULSE_SERVER");
    auto delegate = std::make_shared<RecordingCaptureDelegate>();
    AudioCaptureManager capture;
    capture.setDelegate(delegate);
    const auto failure = capture.start();
    QVERIFY(failure.has_value());
    qInfo("%s", qPrintable(failure->description));
    QCOMPARE(failure->error, std::nullopt);
    QVERIFY2(failure->description.startsWith(u"Cannot reach the sound server: "_s), qPrintable(failure->description));
    QVERIFY(!capture.isRunning());
    capture.stop();
    capture.stop();
    QCOMPARE(delegate->calls(), size_t(0));
}

void TestCaptureNoServer::aServerAddressWhereNothingListens()
{
    qputenv("PULSE_SERVER", (u"unix:"_s + m_dir.filePath(u"nothing-here"_s)).toUtf8());
    AudioCaptureManager capture;
    const auto failure = capture.start();
    QVERIFY(failure.has_value());
    QCOMPARE(failure->error, std::nullopt);
    QCOMPARE(failure->description, u"Cannot reach the sound server: Connection refused."_s);
}

void TestCaptureNoServer::aServerThatNeverAnswers()
{
    // Accepts the connection and then says nothing, like a wedged daemon.
    QLocalServer server;
    const QString path = m_dir.filePath(u"silent"_s);
    QVERIFY(server.listen(path));
    qputenv("PULSE_SERVER", (u"unix:"_s + path).toUtf8());

    AudioCaptureManager capture([] { return makeSystemAudioInput(1500); });
    const auto failure = capture.start();
    QVERIFY(failure.has_value());
    QCOMPARE(failure->error, std::nullopt);
    QCOMPARE(failure->description, u"The sound server did not answer in time."_s);
    QVERIFY(!capture.isRunning());
}

QTEST_GUILESS_MAIN(TestCaptureNoServer)
#include "tst_capture_noserver.moc"
