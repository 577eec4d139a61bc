#include "Log.h"

#include <algorithm>
#include <cstdio>
#include <mutex>

using namespace Qt::Literals::StringLiterals;

namespace Log {

namespace {

const char* symbol(Kind kind)
{
    switch (kind) {
    case Kind::Info:
        return "•";
    case Kind::Success:
        return "✅";
    case Kind::Failure:
        return "✗";
    case Kind::Warning:
        return "⚠️";
    case Kind::Connection:
        return "🔌";
    case Kind::Audio:
        return "🎤";
    case Kind::End:
        return "🏁";
    case Kind::Refresh:
        return "🔄";
    case Kind::Key:
        return "🔑";
    case Kind::Text:
        return "📝";
    }
    return "•";
}

// Long enough for any message of the server's own; a client's text is cut there.
constexpr qsizetype maxMessageChars = 1000;

QString printable(const QString& message)
{
    QString out;
    out.reserve(std::min(message.size(), maxMessageChars) + 16);
    for (qsizetype i = 0; i < message.size(); ++i) {
        if (out.size() >= maxMessageChars) {
            out += u"… (%1 more characters)"_s.arg(message.size() - i);
            break;
        }
        const char16_t c = message.at(i).unicode();
        // Control characters (terminal escapes, NUL), line and paragraph separators, and
        // the direction overrides that make a line read differently from what it holds.
        const bool hidden = c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x2028 || c == 0x2029
            || (c >= 0x200b && c <= 0x200f) || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069)
            || c == 0xfeff;
        if (c == u'\\')
            out += u"\\\\"_s;
        else if (!hidden)
            out += QChar(c);
        else if (c < 0x100)
            out += u"\\x%1"_s.arg(int(c), 2, 16, QLatin1Char('0'));
        else
            out += u"\\u%1"_s.arg(int(c), 4, 16, QLatin1Char('0'));
    }
    return out;
}

} // namespace

void line(Kind kind, const QString& message)
{
    // One event, one line: nothing a client sends can start another line, move the cursor
    // of the terminal showing the log, or fill it.
    const QByteArray text = QByteArray(symbol(kind)) + " [quillet-server] " + printable(message).toUtf8() + '\n';

    // Worker threads may log too; one write per line under a lock keeps lines whole.
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    std::fflush(stdout);
}

Throttle::Throttle(int burst, int periodMs)
    : m_burst(burst)
    , m_periodMs(periodMs)
{ }

void Throttle::line(Kind kind, const QString& message)
{
    if (!m_period.isValid() || m_period.elapsed() >= m_periodMs) {
        m_period.start();
        m_inPeriod = 0;
    }
    if (++m_inPeriod > m_burst) {
        ++m_suppressed;
        return;
    }
    if (m_suppressed > 0) {
        Log::line(kind, message + QStringLiteral(" (%1 similar lines left out)").arg(m_suppressed));
        m_suppressed = 0;
        return;
    }
    Log::line(kind, message);
}

} // namespace Log
