#pragma once

#include <QStringView>

// Diagnostics: one line on standard output per event, "<symbol> [Quillet] <message>".
// Further lines of a message are indented by three blanks. There are no levels and
// no log file. Never pass a token (or anything containing one) to these functions.
namespace Log {

enum class Symbol {
    Success, // ✅
    Failure, // ✗
    Warning, // ⚠️
    Connecting, // 🔌
    Capture, // 🎤
    EndOfTranscript, // 🏁
    Refreshed, // 🔄
    Key, // 🔑
    Insertion, // ✏️
    Start, // ▶️
    Microphone, // 🎙️
    Stop, // 🛑
};

// Writes one diagnostic with a single write, so lines from two threads never interleave.
void write(Symbol symbol, QStringView message);

// Writes a line that continues the previous diagnostic: three blanks, then the message.
void writeContinuation(QStringView message);

// Switches standard output to unbuffered, so each line is out the moment it is written.
void makeStdoutUnbuffered();

} // namespace Log
