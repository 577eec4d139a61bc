#pragma once

#include <QElapsedTimer>
#include <QString>

// One line on standard output per event: a symbol, the program tag and the message.
// Nothing here may ever receive a token: callers log subjects, counts and codes only.
namespace Log {

enum class Kind {
    Info, // "•"  configuration and start-up facts
    Success, // "✅" something finished well
    Failure, // "✗"  something failed
    Warning, // "⚠️" something odd that the server survived
    Connection, // "🔌" a stream opened or closed
    Audio, // "🎤" speech engine events
    End, // "🏁" a transcript ended
    Refresh, // "🔄" a refresh token was rotated
    Key, // "🔑" sign-in, sign-out, token checks
    Text, // "📝" clean-up and rewrite
};

void line(Kind kind, const QString& message);

// For lines that strangers can cause at will (refused connections, streams that never
// sign in): lets `burst` lines through per `periodMs` and counts the rest, which the next
// line let through mentions. One thread only.
class Throttle
{
public:
    Throttle(int burst, int periodMs);
    void line(Kind kind, const QString& message);

private:
    int m_burst;
    int m_periodMs;
    int m_inPeriod = 0;
    qint64 m_suppressed = 0;
    QElapsedTimer m_period;
};

} // namespace Log
