// The program itself, as a new user meets it: the welcome window comes up at the
// first start, and a second start opens Settings in the running one, over it. Both
// are read back from the screen.
#include "ScreenPixels.h"

#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr int drawTimeoutMs = 30000;
// A drawn form has text, controls and frames: well over this share of its pixels
// differs from its background. A blank one has none.
constexpr double minimumInkShare = 0.02;
// The window's rectangle differs in at least this share of its pixels from what
// was there before: an undrawn window leaves what lay beneath it (here the welcome
// window), which has ink of its own.
constexpr double minimumChangedShare = 0.005;

struct Reading {
    std::optional<QRect> rect;
    QImage image;
    double inkShare = 0;
    double changedShare = 0;
};

Reading read(const QString& title, const QImage& screenBefore)
{
    Reading reading;
    reading.rect = ScreenPixels::rectOnScreen(title);
    if (!reading.rect)
        return reading;
    reading.image = ScreenPixels::grabScreen(*reading.rect);
    if (reading.image.isNull())
        return reading;
    const QRgb background = ScreenPixels::dominantColour(reading.image);
    const int ink = ScreenPixels::inkPixels(reading.image, reading.image.rect(), background);
    const double pixels = double(reading.image.width() * reading.image.height());
    reading.inkShare = double(ink) / pixels;
    reading.changedShare
        = std::max(0, ScreenPixels::differingPixels(reading.image, screenBefore.copy(*reading.rect))) / pixels;
    return reading;
}

// Waits until the window of this title is on screen at this size and drawn, over
// what the screen showed before it came.
QString drawnProblem(const QString& title, QSize expectedSize, const QString& name, const QImage& screenBefore)
{
    Reading reading;
    const auto done = [&] {
        reading = read(title, screenBefore);
        return reading.rect && reading.rect->size() == expectedSize && !ScreenPixels::isOneColour(reading.image)
            && reading.inkShare >= minimumInkShare && reading.changedShare >= minimumChangedShare;
    };
    if (QTest::qWaitFor(done, drawTimeoutMs))
        return {};
    const QString shot = ScreenPixels::keepForInspection(reading.image, name);
    const QString screen
        = ScreenPixels::keepForInspection(ScreenPixels::grabScreen(QRect(0, 0, 1 << 14, 1 << 14)), name + u"-screen"_s);
    if (!reading.rect)
        return u"\"%1\" is not on screen (look at %2)"_s.arg(title, screen);
    return u"\"%1\" is %2 x %3 (expected %4 x %5), %6% of its pixels differ from its background and %7% from "
           "what was there before it (look at %8 and %9)"_s.arg(title)
               .arg(reading.rect->width())
               .arg(reading.rect->height())
               .arg(expectedSize.width())
               .arg(expectedSize.height())
               .arg(reading.inkShare * 100, 0, 'f', 1)
               .arg(reading.changedShare * 100, 0, 'f', 1)
               .arg(shot, screen);
}

} // namespace

class TestProgramWindows : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void settingsOpenedWhileTheWelcomeWindowIsUp();

private:
    QProcess m_quillet;
};

void TestProgramWindows::settingsOpenedWhileTheWelcomeWindowIsUp()
{
    // The session's home is new: the first run has not been completed.
    m_quillet.setProcessChannelMode(QProcess::ForwardedChannels);
    QImage screenBefore = ScreenPixels::grabWholeScreen();
    QVERIFY(!screenBefore.isNull());
    m_quillet.start(QStringLiteral(QUILLET_BINARY), {});
    QVERIFY(m_quillet.waitForStarted());
    const auto stop = qScopeGuard([this] {
        m_quillet.terminate();
        if (!m_quillet.waitForFinished(10000))
            m_quillet.kill();
    });

    QString problem = drawnProblem(u"Welcome to Quillet"_s, QSize(520, 560), u"program-welcome"_s, screenBefore);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));

    screenBefore = ScreenPixels::grabWholeScreen();
    QProcess second;
    second.setProcessChannelMode(QProcess::ForwardedChannels);
    second.start(QStringLiteral(QUILLET_BINARY), {});
    QVERIFY(second.waitForFinished(30000));
    QCOMPARE(second.exitCode(), 0);

    problem = drawnProblem(u"Quillet Settings"_s, QSize(460, 380), u"program-settings-over-welcome"_s, screenBefore);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
    QCOMPARE(m_quillet.state(), QProcess::Running);
}

QTEST_GUILESS_MAIN(TestProgramWindows)

#include "tst_programwindows.moc"
