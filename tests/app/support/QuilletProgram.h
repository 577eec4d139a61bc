#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <optional>

// The real quillet program, as a user starts it: its own copy of the executable with
// an information file naming the test's backend beside it, and its own settings.
// Everything it prints is kept, with the moment each line arrived.
class QuilletProgram
{
public:
    struct Line {
        QString text;
        qint64 atMs; // on clock()
    };

    // apiBase and siteBase: the backend the copy talks to; settings: Quillet.conf's [General] lines.
    QuilletProgram(
        const QString& executable, const QString& apiBase, const QString& siteBase, const QStringList& settings);
    ~QuilletProgram();
    QuilletProgram(const QuilletProgram&) = delete;
    QuilletProgram& operator=(const QuilletProgram&) = delete;

    // Starts the program and waits for its key monitor to report.
    bool start();
    // Starts the program and waits for nothing more.
    bool launch();
    void stop();
    qint64 processId() const { return m_process.processId(); }

    // Runs the same copy once more (a second start, --history, a link) to its end; the exit code, or -1.
    int runAgain(const QStringList& arguments, QByteArray* output = nullptr);

    // The newest entry `--history` prints, without its date; nothing while there is none.
    std::optional<QString> newestHistoryText();

    // Every line so far, oldest first.
    QList<Line> lines();
    // Waits for a line starting with prefix that arrived after index `from`; its index.
    std::optional<qsizetype> waitForLine(const QString& prefix, qsizetype from = 0, int timeoutMs = 15000);
    qsizetype lineCount() { return lines().size(); }

    // The clock the arrival times are read on.
    const QElapsedTimer& clock() const { return m_clock; }

private:
    void readLines();

    QTemporaryDir m_dir;
    QString m_executable;
    QProcessEnvironment m_environment;
    QProcess m_process;
    QByteArray m_pending;
    QList<Line> m_lines;
    QElapsedTimer m_clock;
};
