#include "platform/linux/ChildProcess.h"

#include <QProcess>

#include <QCoroProcess>

#include <memory>

QCoro::Task<std::optional<QByteArray>> runChildProcess(
    QString program, QStringList arguments, QByteArray input, std::chrono::milliseconds timeout)
{
    auto process = std::make_unique<QProcess>();
    process->setStandardErrorFile(QProcess::nullDevice());
    if (input.isNull())
        process->setStandardInputFile(QProcess::nullDevice());
    const bool started = co_await qCoro(*process).start(program, arguments, QIODevice::ReadWrite, timeout);
    if (!started)
        co_return std::nullopt;
    if (!input.isNull()) {
        process->write(input);
        process->closeWriteChannel();
    }
    if (!co_await qCoro(*process).waitForFinished(timeout)) {
        process->kill();
        co_await qCoro(*process).waitForFinished(timeout);
        co_return std::nullopt;
    }
    if (process->exitStatus() != QProcess::NormalExit || process->exitCode() != 0)
        co_return std::nullopt;
    co_return process->readAllStandardOutput();
}
