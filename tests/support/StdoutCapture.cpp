#include "StdoutCapture.h"

#include <QFile>

#include <cstdio>
#include <unistd.h>

StdoutCapture::StdoutCapture()
{
    if (!m_file.open())
        qFatal("cannot create a file to capture standard output");
    std::fflush(stdout);
    m_savedFd = ::dup(STDOUT_FILENO);
    ::dup2(m_file.handle(), STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture()
{
    restore();
}

void StdoutCapture::restore()
{
    if (m_savedFd < 0)
        return;
    std::fflush(stdout);
    ::dup2(m_savedFd, STDOUT_FILENO);
    ::close(m_savedFd);
    m_savedFd = -1;
    // Echo what was captured so a failing test still shows it.
    QFile again(m_file.fileName());
    if (again.open(QIODevice::ReadOnly)) {
        const QByteArray all = again.readAll();
        std::fwrite(all.constData(), 1, static_cast<size_t>(all.size()), stdout);
    }
}

QString StdoutCapture::text()
{
    std::fflush(stdout);
    QFile again(m_file.fileName());
    if (!again.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(again.readAll());
}

QStringList StdoutCapture::lines()
{
    QStringList all = text().split(u'\n');
    if (!all.isEmpty() && all.last().isEmpty())
        all.removeLast();
    return all;
}
