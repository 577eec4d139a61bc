#include "QuilletProgram.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

QuilletProgram::QuilletProgram(
    const QString& executable, const QString& apiBase, const QString& siteBase, const QStringList& settings)
{
    m_clock.start();
    m_executable = m_dir.filePath(u"bin/quillet"_s);
    QDir().mkpath(m_dir.filePath(u"bin"_s));
    QFile::copy(executable, m_executable);
    QFile info(m_dir.filePath(u"bin/quillet-info.json"_s));
    if (info.open(QIODevice::WriteOnly)) {
        info.write(QJsonDocument(QJsonObject { { u"API_BASE_URL"_s, apiBase }, { u"SITE_URL"_s, siteBase },
                                     { u"CFBundleShortVersionString"_s, u"0.1.0"_s } })
                       .toJson());
    }
    const QString config = m_dir.filePath(u"config"_s);
    QDir().mkpath(config + u"/Quillet"_s);
    QFile conf(config + u"/Quillet/Quillet.conf"_s);
    if (conf.open(QIODevice::WriteOnly))
        conf.write((u"[General]\n"_s + settings.join(u'\n') + u'\n').toUtf8());

    m_environment = QProcessEnvironment::systemEnvironment();
    m_environment.insert(u"XDG_CONFIG_HOME"_s, config);
    m_process.setProcessEnvironment(m_environment);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    QObject::connect(&m_process, &QProcess::readyRead, [this] { readLines(); });
}

QuilletProgram::~QuilletProgram()
{
    stop();
}

bool QuilletProgram::launch()
{
    m_process.start(m_executable, {});
    return m_process.waitForStarted(5000);
}

bool QuilletProgram::start()
{
    if (!launch())
        return false;
    return waitForLine(u"✅ [Quillet] Event tap created"_s).has_value();
}

void QuilletProgram::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}

int QuilletProgram::runAgain(const QStringList& arguments, QByteArray* output)
{
    QProcess again;
    again.setProcessEnvironment(m_environment);
    again.setProcessChannelMode(QProcess::MergedChannels);
    again.start(m_executable, arguments);
    if (!again.waitForStarted(5000))
        return -1;
    // The running instance may be asked for something meanwhile: keep our event loop turning.
    if (!QTest::qWaitFor([&] { return again.state() == QProcess::NotRunning; }, 15000)) {
        again.kill();
        again.waitForFinished(2000);
        return -1;
    }
    if (output)
        *output = again.readAll();
    return again.exitStatus() == QProcess::NormalExit ? again.exitCode() : -1;
}

std::optional<QString> QuilletProgram::newestHistoryText()
{
    QByteArray output;
    if (runAgain({ u"--history"_s }, &output) != 0)
        return std::nullopt;
    // Entries are printed newest first, each after its date; a note on skipped entries
    // may come before them.
    static const QRegularExpression dated(u"^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  (.*)$"_s);
    for (const QString& line : QString::fromUtf8(output).split(u'\n', Qt::SkipEmptyParts)) {
        const auto match = dated.match(line);
        if (match.hasMatch())
            return match.captured(1);
    }
    return std::nullopt;
}

void QuilletProgram::readLines()
{
    m_pending += m_process.readAll();
    qsizetype end;
    while ((end = m_pending.indexOf('\n')) >= 0) {
        m_lines.append({ QString::fromUtf8(m_pending.left(end)), m_clock.elapsed() });
        m_pending.remove(0, end + 1);
    }
}

QList<QuilletProgram::Line> QuilletProgram::lines()
{
    readLines();
    return m_lines;
}

std::optional<qsizetype> QuilletProgram::waitForLine(const QString& prefix, qsizetype from, int timeoutMs)
{
    std::optional<qsizetype> found;
    (void)QTest::qWaitFor(
        [&] {
            const QList<Line> seen = lines();
            for (qsizetype i = from; i < seen.size(); ++i) {
                if (seen[i].text.startsWith(prefix)) {
                    found = i;
                    return true;
                }
            }
            return m_process.state() == QProcess::NotRunning;
        },
        timeoutMs);
    return found;
}
