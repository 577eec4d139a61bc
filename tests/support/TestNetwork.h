#pragma once

#include <QHostAddress>
#include <QTcpServer>

// A loopback port that was free a moment ago and that nothing listens on now: the
// address of a backend that is not running.
inline quint16 unusedLoopbackPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        qFatal("cannot listen on loopback");
    return probe.serverPort();
}
