#include "platform/linux/WlClipboardPasteboard.h"

#include "platform/linux/ChildProcess.h"

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Long enough for a busy clipboard owner to answer, short enough that a hung one
// cannot hold a dictation's text for long.
constexpr std::chrono::milliseconds clientTimeout = 1s;

} // namespace

WlClipboardPasteboard::WlClipboardPasteboard(bool available)
    : m_available(available)
{ }

QCoro::Task<std::optional<QString>> WlClipboardPasteboard::plainText()
{
    if (!m_available)
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
    co_await runChildProcess(u"wl-copy"_s, arguments, QByteArray(), clientTimeout);
}

QCoro::Task<> WlClipboardPasteboard::setPlainText(const QString& text)
{
    if (!m_available)
        co_return;
    // The text goes through standard input: no length limit, and not on any command line.
    // The explicit type spares wl-copy guessing it, and it offers the usual text aliases.
    const QStringList arguments { u"--type"_s, u"text/plain"_s };
    co_await runChildProcess(u"wl-copy"_s, arguments, text.toUtf8(), clientTimeout);
}
