// How fast the capsule comes up when a dictation starts, and what it costs in
// memory. Every dictation makes a new HUDWindowController, so after the first
// one (which creates the QML engine and loads the compiled views) the figure
// that matters is show() -> window mapped for a fresh controller.
// Run inside scripts/desktop-session.sh; prints figures, asserts nothing.
#include "ui/HUDWindowController.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QQuickWindow>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

using namespace std::chrono_literals;

namespace {

struct ShowTimes {
    double exposedMs = -1; // show() until the X server has mapped the window
    double firstFrameMs = -1; // show() until the first frame is on screen
};

// Resident set size in KiB, from /proc/self/status.
long residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

HUDTiming benchTiming()
{
    return { .fadeIn = 1ms, .fadeOut = 1ms, .errorDismissal = 10ms, .successDismissal = 10ms };
}

ShowTimes timeShow(HUDWindowController& hud)
{
    ShowTimes times;
    QElapsedTimer clock;
    bool swapped = false;
    clock.start();
    hud.show(HUDMode::dictating());
    QQuickWindow* window = hud.window();
    if (!window)
        return times;
    const auto connection = QObject::connect(window, &QQuickWindow::frameSwapped, window, [&] {
        if (!swapped)
            times.firstFrameMs = double(clock.nsecsElapsed()) / 1e6;
        swapped = true;
    });
    while (!window->isExposed() && clock.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    times.exposedMs = double(clock.nsecsElapsed()) / 1e6;
    while (!swapped && clock.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QObject::disconnect(connection);
    return times;
}

void dismissAndWait(HUDWindowController& hud)
{
    bool gone = false;
    QObject::connect(&hud, &HUDWindowController::dismissed, &hud, [&] { gone = true; });
    hud.showSuccess(QString(), std::nullopt);
    QElapsedTimer clock;
    clock.start();
    while (!gone && clock.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5));
    return values[index];
}

// One batch of new controllers, each shown, dismissed and released.
void cycle(int count, std::vector<double>& exposed, std::vector<double>& frames)
{
    for (int i = 0; i < count; ++i) {
        auto hud = std::make_unique<HUDWindowController>(benchTiming());
        const ShowTimes times = timeShow(*hud);
        exposed.push_back(times.exposedMs);
        frames.push_back(times.firstFrameMs);
        dismissAndWait(*hud);
        hud.reset();
        // Let deferred deletions of the window's resources run, as the event loop would.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
}

} // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    constexpr int cycles = 20;

    const long rssBefore = residentKiB();
    QElapsedTimer preloadClock;
    preloadClock.start();
    const bool preloaded = HUDWindowController::preload();
    const double preloadMs = double(preloadClock.nsecsElapsed()) / 1e6;
    auto first = std::make_unique<HUDWindowController>(benchTiming());
    const ShowTimes firstTimes = timeShow(*first);
    dismissAndWait(*first);
    first.reset();
    QCoreApplication::processEvents();
    const long rssAfterFirst = residentKiB();

    std::vector<double> exposed;
    std::vector<double> frames;
    cycle(cycles, exposed, frames);
    const long rssAfterCycles = residentKiB();
    std::vector<double> moreExposed;
    std::vector<double> moreFrames;
    cycle(cycles, moreExposed, moreFrames);
    const long rssAfterMore = residentKiB();

    std::printf("HUD capsule, show() on a new controller (%s, %s)\n", qPrintable(QGuiApplication::platformName()),
        qPrintable(QQuickWindow::sceneGraphBackend().isEmpty() ? QStringLiteral("default scene graph")
                                                               : QQuickWindow::sceneGraphBackend()));
    std::printf("  preload (engine + compiled views):  %7.1f ms%s\n", preloadMs, preloaded ? "" : " (FAILED)");
    std::printf("  first controller (first window):  exposed %7.1f ms, first frame %7.1f ms\n", firstTimes.exposedMs,
        firstTimes.firstFrameMs);
    std::printf("  next %d controllers, exposed:       p50 %7.1f ms, p90 %7.1f ms, max %7.1f ms\n", cycles,
        percentile(exposed, 0.5), percentile(exposed, 0.9), percentile(exposed, 1.0));
    std::printf("  next %d controllers, first frame:   p50 %7.1f ms, p90 %7.1f ms, max %7.1f ms\n", cycles,
        percentile(frames, 0.5), percentile(frames, 0.9), percentile(frames, 1.0));
    std::printf("  further %d controllers, exposed:    p50 %7.1f ms; first frame p50 %7.1f ms\n", cycles,
        percentile(moreExposed, 0.5), percentile(moreFrames, 0.5));
    std::printf("Resident memory\n");
    std::printf("  before the first HUD:               %7ld KiB\n", rssBefore);
    std::printf("  after the first HUD:                %7ld KiB (+%ld)\n", rssAfterFirst, rssAfterFirst - rssBefore);
    std::printf("  after %d show/dismiss cycles:       %7ld KiB (%+.1f KiB per cycle)\n", cycles, rssAfterCycles,
        double(rssAfterCycles - rssAfterFirst) / cycles);
    std::printf("  after %d more:                      %7ld KiB (%+.1f KiB per cycle)\n", cycles, rssAfterMore,
        double(rssAfterMore - rssAfterCycles) / cycles);
    return 0;
}
