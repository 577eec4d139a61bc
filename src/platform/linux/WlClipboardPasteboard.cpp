#include "platform/linux/WlClipboardPasteboard.h"

#include "platform/linux/ChildProcess.h"

#include <QProcess>
#include <QTimer>

#include <csignal>
#include <sys/prctl.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Long enough for a busy clipboard owner to answer, short enough that a hung one
// cannot hold a dictation's text for long.
constexpr std::chrono::milliseconds clientTimeout = 1s;

} // namespace

WlClipboardPasteboard::WlClipboardPasteboard(bool available)
    : m_available(available)
{
    if (m_available) {
        watch();
        probe();
    }
}

WlClipboardPasteboard::~WlClipboardPasteboard()
{
    for (QProcess* child : { m_watcher.get(), m_probe.get() }) {
        if (!child)
            continue;
        child->disconnect();
        child->kill();
        child->waitForFinished(1000);
    }
}

void WlClipboardPasteboard::watch()
{
    m_watcher = std::make_unique<QProcess>();
    // The command reads the new selection's text to its end (its owner is not left
    // writing into a closed pipe) and writes one line for it.
    m_watcher->setProgram(u"wl-paste"_s);
    m_watcher->setArguments(
        { u"--no-newline"_s, u"--type"_s, u"text"_s, u"--watch"_s, u"sh"_s, u"-c"_s, u"cat >/dev/null; echo"_s });
    m_watcher->setStandardErrorFile(QProcess::nullDevice());
    // Never outlive this program, even when it is killed.
    m_watcher->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    QObject::connect(m_watcher.get(), &QProcess::readyReadStandardOutput, m_watcher.get(), [this] {
        m_watcher->readAllStandardOutput();
        ++m_changes;
        m_knownEmpty = false;
    });
    // Without the watcher nothing is known: every read asks again.
    QObject::connect(m_watcher.get(), &QProcess::finished, m_watcher.get(), [this] {
        m_knownEmpty = false;
        m_watcher.release()->deleteLater();
    });
    m_watcher->start();
}

void WlClipboardPasteboard::probe()
{
    m_probe = std::make_unique<QProcess>();
    m_probe->setProgram(u"wl-paste"_s);
    m_probe->setArguments({ u"--no-newline"_s, u"--type"_s, u"text"_s });
    m_probe->setStandardOutputFile(QProcess::nullDevice());
    m_probe->setStandardErrorFile(QProcess::nullDevice());
    m_probe->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    const quint64 changes = m_changes;
    QObject::connect(
        m_probe.get(), &QProcess::finished, m_probe.get(), [this, changes](int exitCode, QProcess::ExitStatus status) {
            const bool text = status == QProcess::NormalExit && exitCode == 0;
            // A selection reported or written meanwhile may be the newer state.
            if (!text && m_watcher && m_changes == changes && m_writes == 0)
                m_knownEmpty = true;
            m_probe.release()->deleteLater();
        });
    // Only the watcher's word ends the wait on some compositors: the time is up instead.
    QTimer::singleShot(clientTimeout, m_probe.get(), [this] { m_probe->kill(); });
    m_probe->start();
}

QCoro::Task<std::optional<QString>> WlClipboardPasteboard::plainText()
{
    if (!m_available || (m_knownEmpty && m_watcher))
        co_return std::nullopt;
    // Exits with 1 when the clipboard is empty or holds no text (only an image, say).
    // (Argument lists are built first: GCC 12 cannot take a braced list inside co_await.)
    const QStringList arguments { u"--no-newline"_s, u"--type"_s, u"text"_s };
    const std::optional<QByteArray> text
        = co_await runChildProcess(u"wl-paste"_s, arguments, QByteArray(), clientTimeout);
    if (!text)
        co_return std::nullopt;
    co_return QString::fromUtf8(*text);
}

QCoro::Task<QStringList> WlClipboardPasteboard::types()
{
    // Only the plain text is ever kept, and a Wayland clipboard owner offers what it has
    // without being asked first: no client needs to run for this.
    co_return QStringList();
}

QCoro::Task<> WlClipboardPasteboard::clear()
{
    if (!m_available)
        co_return;
    const QStringList arguments { u"--clear"_s };
    const quint64 changes = m_changes;
    ++m_writes;
    const std::optional<QByteArray> cleared
        = co_await runChildProcess(u"wl-copy"_s, arguments, QByteArray(), clientTimeout);
    // Whatever the watcher reported meanwhile may have come after the clear.
    m_knownEmpty = cleared.has_value() && m_watcher && m_changes == changes;
}

QCoro::Task<> WlClipboardPasteboard::setPlainText(const QString& text)
{
    if (!m_available)
        co_return;
    // The text goes through standard input: no length limit, and not on any command line.
    // The explicit type spares wl-copy guessing it, and it offers the usual text aliases.
    m_knownEmpty = false;
    ++m_writes;
    const QStringList arguments { u"--type"_s, u"text/plain"_s };
    co_await runChildProcess(u"wl-copy"_s, arguments, text.toUtf8(), clientTimeout);
}
