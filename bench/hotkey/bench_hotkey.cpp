// How long a press of the hotkey takes to reach hotkeyBegan through the real
// XInput2 key source, and what the monitor costs while nobody types. The keys
// are pressed through XTest from this process, on a connection of its own.
// Run inside scripts/desktop-session.sh; prints figures, asserts nothing.
#include "dictation/HotkeyManager.h"
#include "services/SettingsStore.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

using namespace Qt::StringLiterals;

namespace {

// Sends standard output to /dev/null while it lives: the monitor's log lines
// (one per modifier event) are written as in the program, but not among the figures.
class QuietStdout
{
public:
    QuietStdout()
        : m_saved(::dup(STDOUT_FILENO))
    {
        std::fflush(stdout);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        ::dup2(m_saved, STDOUT_FILENO);
        ::close(m_saved);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int m_saved;
};

class Delegate : public QObject, public HotkeyManagerDelegate
{
public:
    QEventLoop* waiting = nullptr;
    QElapsedTimer clock;
    qint64 beganAtNs = 0;
    void hotkeyBegan(bool) override
    {
        beganAtNs = clock.nsecsElapsed();
        if (waiting)
            waiting->quit();
    }
    void hotkeyEnded() override
    {
        if (waiting)
            waiting->quit();
    }
};

struct CpuUse {
    double seconds;
    long voluntarySwitches;
};

CpuUse cpuUse()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return { static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
            + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6,
        usage.ru_nvcsw };
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

// Presses or releases a key and waits (at most 2 s) for the delegate to hear of it.
bool pressAndWait(Display* x, KeyCode key, bool press, Delegate& delegate)
{
    QEventLoop loop;
    delegate.waiting = &loop;
    bool timedOut = false;
    QTimer guard;
    guard.setSingleShot(true);
    QObject::connect(&guard, &QTimer::timeout, &loop, [&] {
        timedOut = true;
        loop.quit();
    });
    guard.start(2000);
    XTestFakeKeyEvent(x, key, press ? True : False, CurrentTime);
    XFlush(x);
    loop.exec();
    delegate.waiting = nullptr;
    return !timedOut;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int presses = argc > 1 ? std::max(10, std::atoi(argv[1])) : 300;

    Display* const x = XOpenDisplay(nullptr);
    if (!x) {
        std::fprintf(stderr, "bench_hotkey: no X display; run it inside scripts/desktop-session.sh\n");
        return 1;
    }
    const KeyCode rightAlt = XKeysymToKeycode(x, XK_Alt_R);
    if (rightAlt == 0) {
        std::fprintf(stderr, "bench_hotkey: the keymap has no Alt_R\n");
        return 1;
    }

    QTemporaryDir dir;
    SettingsStore::resetShared(std::make_unique<SettingsStore>(
        std::make_unique<QSettings>(dir.filePath(u"bench.ini"_s), QSettings::IniFormat)));
    SettingsStore::shared().setHotkey(Hotkey::rightOption);

    Delegate delegate;
    delegate.clock.start();
    std::vector<double> latenciesUs;
    CpuUse idleBefore {};
    CpuUse idleAfter {};
    {
        QuietStdout quiet;
        HotkeyManager manager(makeSystemKeyEventSource());
        manager.setDelegate(&delegate);
        manager.registerTap();
        if (!manager.isRegistered())
            return 1;
        // Let the start-up reads settle before measuring.
        QTimer::singleShot(200, &app, &QCoreApplication::quit);
        app.exec();

        for (int i = 0; i < presses; ++i) {
            const qint64 sentAt = delegate.clock.nsecsElapsed();
            if (!pressAndWait(x, rightAlt, true, delegate))
                return 2;
            latenciesUs.push_back(static_cast<double>(delegate.beganAtNs - sentAt) / 1000.0);
            if (!pressAndWait(x, rightAlt, false, delegate))
                return 2;
        }

        // Ten seconds with the monitor running and no key pressed: the only wakeup
        // should be the timer that ends the wait.
        idleBefore = cpuUse();
        QTimer::singleShot(10000, &app, &QCoreApplication::quit);
        app.exec();
        idleAfter = cpuUse();
    }
    XCloseDisplay(x);

    std::printf("key press (XTest, this process) -> hotkeyBegan, %d presses of right Alt:\n", presses);
    std::printf("  p50 %.0f us   p95 %.0f us   max %.0f us\n", percentile(latenciesUs, 0.50),
        percentile(latenciesUs, 0.95), percentile(latenciesUs, 1.0));
    std::printf("idle for 10 s with the monitor listening:\n");
    std::printf("  CPU %.3f ms   voluntary context switches %ld (the closing timer accounts for one)\n",
        (idleAfter.seconds - idleBefore.seconds) * 1000.0, idleAfter.voluntarySwitches - idleBefore.voluntarySwitches);
    return 0;
}
