#include "app/HistoryText.h"
#include "services/HistoryManager.h"

#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;

// What `quillet --history` prints: the whole of every text, and no control character
// that a terminal would act on.
class TestHistoryText : public QObject
{
    Q_OBJECT

    static HistoryEntry entry(const QString& text)
    {
        return { QUuid::createUuid(), text, QDateTime(QDate(2026, 3, 4), QTime(5, 6, 7), Qt::UTC) };
    }

private Q_SLOTS:
    void controlsAreShownAsEscapes_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("shown");
        QTest::newRow("NUL") << u"before"_s + QChar(0) + u"after"_s << u"before\\0after"_s;
        QTest::newRow("title") << u"\u001b]0;owned\u0007rest"_s << u"\\e]0;owned\\x07rest"_s;
        QTest::newRow("clear screen") << u"\u001b[2J\u001b[Hhi"_s << u"\\e[2J\\e[Hhi"_s;
        QTest::newRow("carriage return") << u"visible\rhidden"_s << u"visible\\rhidden"_s;
        QTest::newRow("C1 CSI") << u"a\u009b2Jb"_s << u"a\\x9b2Jb"_s;
        QTest::newRow("delete") << u"a\u007fb"_s << u"a\\x7fb"_s;
        QTest::newRow("direction override") << u"abc\u202edef"_s << u"abc\\u202edef"_s;
        QTest::newRow("tab stays") << u"a\tb"_s << u"a\tb"_s;
        QTest::newRow("plain") << u"Grüße, 👋"_s << u"Grüße, 👋"_s;
    }
    void controlsAreShownAsEscapes()
    {
        QFETCH(QString, text);
        QFETCH(QString, shown);
        QCOMPARE(HistoryText::escapeControls(text), shown);
    }

    void theProgramPrintsEveryEntryWhole()
    {
        // The real program on a settings file of its own.
        QTemporaryDir home;
        QVERIFY(home.isValid());
        const QString config = home.filePath(u"config"_s);
        {
            QSettings settings(config + u"/Quillet/Quillet.conf"_s, QSettings::IniFormat);
            settings.setValue(HistoryManager::key,
                HistoryManager::encode({ entry(u"second \u001b]0;pwned\u0007 line"_s),
                    entry(u"first"_s + QChar(0) + u"after the NUL"_s) }));
        }
        QProcess program;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"XDG_CONFIG_HOME"_s, config);
        env.insert(u"HOME"_s, home.path());
        env.insert(u"TZ"_s, u"UTC"_s);
        program.setProcessEnvironment(env);
        program.start(QStringLiteral(QUILLET_BINARY), { u"--history"_s });
        QVERIFY(program.waitForFinished(20000));
        QCOMPARE(program.exitCode(), 0);
        const QByteArray out = program.readAllStandardOutput();
        QCOMPARE(out,
            QByteArray("2026-03-04 05:06:07  second \\e]0;pwned\\x07 line\n"
                       "2026-03-04 05:06:07  first\\0after the NUL\n"));
        QVERIFY(!out.contains('\x1b'));
        QVERIFY(!out.contains('\0'));
    }
};

QTEST_GUILESS_MAIN(TestHistoryText)
#include "tst_historytext.moc"
