#include "services/Log.h"

#include <QByteArray>
#include <QString>

#include <cstdio>

namespace {

const char* symbolText(Log::Symbol symbol)
{
    switch (symbol) {
    case Log::Symbol::Success:
        return "\u2705";
    case Log::Symbol::Failure:
        return "\u2717";
    case Log::Symbol::Warning:
        return "\u26A0\uFE0F";
    case Log::Symbol::Connecting:
        return "\U0001F50C";
    case Log::Symbol::Capture:
        return "\U0001F3A4";
    case Log::Symbol::EndOfTranscript:
        return "\U0001F3C1";
    case Log::Symbol::Refreshed:
        return "\U0001F504";
    case Log::Symbol::Key:
        return "\U0001F511";
    case Log::Symbol::Insertion:
        return "\u270F\uFE0F";
    case Log::Symbol::Start:
        return "\u25B6\uFE0F";
    case Log::Symbol::Microphone:
        return "\U0001F399\uFE0F";
    case Log::Symbol::Stop:
        return "\U0001F6D1";
    }
    return "?";
}

} // namespace

void Log::write(Symbol symbol, QStringView message)
{
    QByteArray line;
    line.reserve(message.size() + 32);
    line.append(symbolText(symbol));
    line.append(" [Quillet] ");
    const QByteArray text = message.toUtf8();
    qsizetype start = 0;
    while (true) {
        const qsizetype end = text.indexOf('\n', start);
        if (start > 0)
            line.append("   ");
        line.append(text.constData() + start, (end < 0 ? text.size() : end) - start);
        line.append('\n');
        if (end < 0)
            break;
        start = end + 1;
    }
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
}

void Log::writeContinuation(QStringView message)
{
    QByteArray line("   ");
    line.append(message.toUtf8());
    line.replace("\n", "\n   ");
    line.append('\n');
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
}

void Log::makeStdoutUnbuffered()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
}
