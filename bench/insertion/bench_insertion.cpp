// How long a dictation of 500 characters takes to land in a GTK 3 entry: our
// accessibility edit against "xdotool type", which types it key by key (what
// many Linux dictation tools do), in the same desktop, into the same field.
// Run inside scripts/desktop-session.sh; prints figures, asserts nothing.
#include "FieldApp.h"
#include "dictation/TextInserter.h"
#include "platform/PasteKeystroke.h"
#include "platform/Pasteboard.h"
#include "platform/TextAccessibility.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Sends standard output to /dev/null while it lives: the inserter's log lines
// are not wanted among the figures.
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

QString dictation(int length)
{
    const QStringList words
        = { u"the"_s, u"meeting"_s, u"moved"_s, u"to"_s, u"Thursday"_s, u"afternoon,"_s, u"please"_s, u"bring"_s,
              u"notes"_s, u"and"_s, u"questions."_s, u"We"_s, u"will"_s, u"review"_s, u"budget"_s, u"figures"_s };
    QString text;
    for (int i = 0; text.size() < length; ++i)
        text += words[i % words.size()] + u' ';
    return text.left(length);
}

struct Figures {
    double median = 0;
    double p95 = 0;
};

Figures figures(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) {
        const double position = q * static_cast<double>(samples.size() - 1);
        const auto below = static_cast<size_t>(position);
        const size_t above = std::min(below + 1, samples.size() - 1);
        return samples[below] + (samples[above] - samples[below]) * (position - static_cast<double>(below));
    };
    return { at(0.5), at(0.95) };
}

void print(const char* name, const std::vector<double>& samples, int correct)
{
    const Figures f = figures(samples);
    std::printf("%-34s runs %3zu  correct %3d  median %9.2f ms  p95 %9.2f ms\n", name, samples.size(), correct,
        f.median, f.p95);
}

// Times "xdotool type" from its start until the field shows the whole text.
std::vector<double> timeXdotool(FieldApp& app, const QString& text, const QString& delay, int runs, int& correct)
{
    std::vector<double> samples;
    correct = 0;
    for (int i = 0; i < runs; ++i) {
        app.set(u"entry"_s, QString(), 0, 0);
        QElapsedTimer clock;
        clock.start();
        Desktop::run(u"xdotool"_s, { u"type"_s, u"--delay"_s, delay, u"--"_s, text });
        const auto shown = app.waitForText(u"entry"_s, text, 60000);
        samples.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
        correct += shown && shown->text == text ? 1 : 0;
    }
    return samples;
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    const int ourRuns = 60;
    const int typedRuns = 3;
    const int fastTypedRuns = 10;

    const std::unique_ptr<TextAccessibility> accessibility = makeSystemTextAccessibility();
    const std::unique_ptr<Pasteboard> pasteboard = makeSystemPasteboard();
    const std::unique_ptr<PasteKeystroke> keystroke = makeSystemPasteKeystroke();
    TextInserter inserter(*accessibility, *pasteboard, *keystroke);
    if (!accessibility->isTrusted()) {
        std::fprintf(stderr, "The accessibility bus is off: run this inside scripts/desktop-session.sh.\n");
        return 1;
    }
    FieldApp app(QStringLiteral(QUILLET_GTK_FIELDS));
    if (!app.start() || !app.focus(u"entry"_s)) {
        std::fprintf(stderr, "The GTK window did not come up or take the focus.\n");
        return 1;
    }
    const QString text = dictation(500);

    std::vector<double> ours;
    int oursCorrect = 0;
    for (int i = 0; i < ourRuns + 3; ++i) {
        app.set(u"entry"_s, QString(), 0, 0);
        QElapsedTimer clock;
        {
            const QuietStdout quiet;
            clock.start();
            inserter.insert(text);
        }
        const double elapsed = static_cast<double>(clock.nsecsElapsed()) / 1e6;
        const auto shown = app.content(u"entry"_s);
        if (i < 3)
            continue; // warming up: the first call connects and finds the focus
        ours.push_back(elapsed);
        oursCorrect += shown && shown->text == text ? 1 : 0;
    }

    int typedCorrect = 0;
    const std::vector<double> typed = timeXdotool(app, text, u"12"_s, typedRuns, typedCorrect);
    int fastCorrect = 0;
    const std::vector<double> fast = timeXdotool(app, text, u"0"_s, fastTypedRuns, fastCorrect);

    std::printf("Insertion of %lld characters into a GTK 3 entry\n", static_cast<long long>(text.size()));
    print("AT-SPI edit (TextInserter)", ours, oursCorrect);
    print("xdotool type (default 12 ms delay)", typed, typedCorrect);
    print("xdotool type --delay 0", fast, fastCorrect);
    const Figures o = figures(ours);
    const Figures t = figures(typed);
    const Figures z = figures(fast);
    std::printf("ratio, median: %.0fx faster than xdotool type, %.0fx faster than xdotool type --delay 0\n",
        t.median / o.median, z.median / o.median);
    std::printf("ratio, p95:    %.0fx faster than xdotool type, %.0fx faster than xdotool type --delay 0\n",
        t.p95 / o.p95, z.p95 / o.p95);
    return 0;
}
