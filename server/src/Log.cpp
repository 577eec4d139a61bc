#include "Log.h"

#include <cstdio>
#include <mutex>

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

} // namespace

void line(Kind kind, const QString& message)
{
    // A message must stay on one line so that log readers can split on newlines.
    QString flat = message;
    flat.replace(QLatin1Char('\n'), QLatin1Char(' '));
    flat.replace(QLatin1Char('\r'), QLatin1Char(' '));
    const QByteArray text = QByteArray(symbol(kind)) + " [quillet-server] " + flat.toUtf8() + '\n';

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
