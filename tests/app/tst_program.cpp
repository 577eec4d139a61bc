#include "FieldApp.h"
#include "ServerProcess.h"
#include "support/QuilletProgram.h"

#include <QDir>
#include <QRegularExpression>
#include <QtTest>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

int historyCount(QuilletProgram& program)
{
    QByteArray output;
    program.runAgain({ u"--history"_s }, &output);
    if (output.startsWith("No dictations"))
        return 0;
    return int(QString::fromUtf8(output).split(u'\n', Qt::SkipEmptyParts).size());
}

bool xdotool(const QStringList& arguments)
{
    return Desktop::run(u"xdotool"_s, arguments) == 0;
}

// Where the visible capsule of the program is: x, y, width, height.
std::optional<QRect> visibleCapsule()
{
    QByteArray ids;
    if (Desktop::run(u"xdotool"_s, { u"search"_s, u"--onlyvisible"_s, u"--classname"_s, u"quillet"_s }, &ids) != 0)
        return std::nullopt;
    for (const QByteArray& id : ids.split('\n')) {
        if (id.trimmed().isEmpty())
            continue;
        QByteArray shell;
        if (Desktop::run(
                u"xdotool"_s, { u"getwindowgeometry"_s, u"--shell"_s, QString::fromLatin1(id.trimmed()) }, &shell)
            != 0)
            continue;
        QMap<QByteArray, int> values;
        for (const QByteArray& line : shell.split('\n')) {
            const QList<QByteArray> pair = line.split('=');
            if (pair.size() == 2)
                values[pair[0]] = pair[1].toInt();
        }
        if (values.value("WIDTH") == 320)
            return QRect(values.value("X"), values.value("Y"), values.value("WIDTH"), values.value("HEIGHT"));
    }
    return std::nullopt;
}

} // namespace

// The whole program as a user meets it: signed in through the site and the link it
// opens, the hotkey held on the real X server, speech into the virtual microphone,
// and the words in another application's text field.
class TestProgram : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QFile::exists(clip));
        QVERIFY(Desktop::run(u"sox"_s, { clip, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, m_dir.filePath(u"speech.wav"_s) })
            == 0);
        QString error;
        m_server = std::make_unique<ServerProcess>();
        QVERIFY2(m_server->start(&error), qPrintable(error));
        const QString api = m_server->apiUrl(QString()).toString(QUrl::StripTrailingSlash);
        const QString site = m_server->siteUrl(QString()).toString(QUrl::StripTrailingSlash);
        m_program = std::make_unique<QuilletProgram>(
            QStringLiteral(QUILLET_BINARY), api, site, QStringList { u"hotkey=fn"_s, u"onboarding.complete=true"_s });
        QVERIFY(m_program->start());

        m_gtk = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        QVERIFY(m_gtk->start());
    }

    void signInThroughTheSiteAndTheLink()
    {
        Http http;
        QString error;
        const TokenPair pair = signInThroughSite(http, *m_server, &error);
        QVERIFY2(!pair.deepLink.isEmpty(), qPrintable(error));
        QVERIFY(pair.deepLink.startsWith(u"quillet://auth?"_s));
        // What the browser does with the link: start quillet with it; the running one takes it.
        QCOMPARE(m_program->runAgain({ pair.deepLink }), 0);
        m_signedIn = true;
    }

    void dictationLandsInAnotherApplication()
    {
        QVERIFY(m_signedIn);
        QVERIFY(m_gtk->set(u"entry"_s, QString(), 0, 0));
        QVERIFY(m_gtk->focus(u"entry"_s));
        const qsizetype from = m_program->lineCount();
        QVERIFY(xdotool({ u"keydown"_s, u"Menu"_s }));
        QVERIFY(m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, from));
        QCOMPARE(Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, m_dir.filePath(u"speech.wav"_s) }), 0);
        QVERIFY(xdotool({ u"keyup"_s, u"Menu"_s }));
        QVERIFY(m_program->waitForLine(u"🛑 [Quillet] hotkeyEnded"_s, from));
        const auto end = m_program->waitForLine(u"🏁 [Quillet] transcriptionDidEnd"_s, from);
        QVERIFY(end);

        // The text was recorded before it was inserted; the field shows exactly that text.
        std::optional<QString> recorded;
        QVERIFY(QTest::qWaitFor([&] { return (recorded = m_program->newestHistoryText()).has_value(); }, 10000));
        QVERIFY(!recorded->isEmpty());
        const auto shown = m_gtk->waitForText(u"entry"_s, *recorded);
        QVERIFY(shown);
        QCOMPARE(shown->text, *recorded);
        // PocketSphinx is no perfect listener, but the clip's words are in there.
        int known = 0;
        for (const QString& word : { u"was"_s, u"not"_s, u"young"_s, u"man"_s })
            known += recorded->contains(word, Qt::CaseInsensitive) ? 1 : 0;
        QVERIFY2(known >= 2, qPrintable(*recorded));
    }

    void aDoubleTapAsksForATone()
    {
        QVERIFY(m_signedIn);
        QVERIFY(m_gtk->set(u"entry"_s, QString(), 0, 0));
        QVERIFY(m_gtk->focus(u"entry"_s));
        // The previous dictation must be over, or the press is refused.
        QTest::qWait(2000);
        const qsizetype from = m_program->lineCount();
        // A person's double tap: the first tap starts a dictation, which gives way to the
        // tone dictation the second press asks for, however far its stream has got.
        QVERIFY(xdotool({ u"key"_s, u"Menu"_s }));
        QTest::qWait(150);
        QVERIFY(xdotool({ u"keydown"_s, u"Menu"_s }));
        QVERIFY(m_program->waitForLine(u"🎙️ [Quillet] hotkeyBegan toneMode=true"_s, from));
        const auto toneStart = m_program->waitForLine(u"▶️ [Quillet] DictationSession.start (tone=true)"_s, from);
        QVERIFY(toneStart);
        QVERIFY(m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, *toneStart));
        QCOMPARE(Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, m_dir.filePath(u"speech.wav"_s) }), 0);
        QVERIFY(xdotool({ u"keyup"_s, u"Menu"_s }));
        QVERIFY(m_program->waitForLine(u"🏁 [Quillet] transcriptionDidEnd"_s, *toneStart));

        // The capsule now offers the tones: click the first, "Professional", as a user would.
        std::optional<QRect> capsule;
        QVERIFY(QTest::qWaitFor([&] { return (capsule = visibleCapsule()).has_value() && capsule->height() > 56; }));
        // Padding, the header row (title and close control, 18 high), spacing, half a button.
        const QPoint professional = capsule->topLeft() + QPoint(16 + 46, 12 + 18 + 8 + 11);
        QVERIFY(xdotool({ u"mousemove"_s, QString::number(professional.x()), QString::number(professional.y()),
            u"click"_s, u"1"_s }));

        std::optional<QString> recorded;
        QVERIFY(QTest::qWaitFor(
            [&] {
                recorded = m_program->newestHistoryText();
                return recorded && m_gtk->content(u"entry"_s) && !m_gtk->content(u"entry"_s)->text.isEmpty();
            },
            15000));
        const auto shown = m_gtk->waitForText(u"entry"_s, *recorded);
        QVERIFY(shown);
        QCOMPARE(shown->text, *recorded);
        // The entry kept the keyboard focus through the click on the capsule.
        QVERIFY(m_gtk->hasFocus(u"entry"_s));
    }

    void aBackendGoneMidwayShowsWhyAndInsertsNothing()
    {
        QVERIFY(m_signedIn);
        QVERIFY(m_gtk->set(u"entry"_s, u"kept"_s, 4, 4));
        QVERIFY(m_gtk->focus(u"entry"_s));
        QTest::qWait(2000);
        const int before = historyCount(*m_program);
        const qsizetype from = m_program->lineCount();
        QVERIFY(xdotool({ u"keydown"_s, u"Menu"_s }));
        QVERIFY(m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, from));
        m_server->stop();
        QVERIFY(xdotool({ u"keyup"_s, u"Menu"_s }));
        const auto failed = m_program->waitForLine(u"✗ [Quillet] transcriptionDidFail"_s, from);
        QVERIFY(failed);
        QVERIFY2(m_program->lines().at(*failed).text.contains(
                     u"Connection closed before any response. Check backend or token."_s),
            qPrintable(m_program->lines().at(*failed).text));
        QTest::qWait(1000);
        QCOMPARE(m_gtk->content(u"entry"_s)->text, u"kept"_s);
        QCOMPARE(historyCount(*m_program), before);
    }

    void cleanupTestCase()
    {
        m_gtk.reset();
        m_program.reset();
        m_server.reset();
    }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
    std::unique_ptr<QuilletProgram> m_program;
    std::unique_ptr<FieldApp> m_gtk;
    bool m_signedIn = false;
};

QTEST_GUILESS_MAIN(TestProgram)
#include "tst_program.moc"
