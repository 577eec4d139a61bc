#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <QCoroTask>

#include <chrono>
#include <optional>

// Runs a helper program (wl-copy, wl-paste, wtype) without ever blocking the event
// loop: the coroutine resumes when the program ends, or kills it once the time is up.
// Gives its standard output when it exited with status 0, nothing otherwise.
QCoro::Task<std::optional<QByteArray>> runChildProcess(
    QString program, QStringList arguments, QByteArray input, std::chrono::milliseconds timeout);
