#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>

// Sends everything written to standard output (file descriptor 1) into a file
// until take() or destruction, so a test can read exactly what a user would see.
class StdoutCapture
{
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    // Everything written so far, as UTF-8 text; capturing goes on.
    QString text();
    // The lines written so far, without their line ends.
    QStringList lines();

private:
    void restore();

    QTemporaryFile m_file;
    int m_savedFd = -1;
};
