#include "FieldApp.h"

#include <QDeadlineTimer>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QString fromBase64(const QByteArray& encoded)
{
    return encoded == "-" ? QString() : QString::fromUtf8(QByteArray::fromBase64(encoded));
}

QByteArray toBase64(const QString& text)
{
    return text.isEmpty() ? QByteArray("-") : text.toUtf8().toBase64();
}

} // namespace

FieldApp::FieldApp(QString program)
    : m_program(std::move(program))
{ }

FieldApp::~FieldApp()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(2000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}

void FieldApp::setEnvironmentVariable(const QString& name, const QString& value)
{
    QProcessEnvironment environment = m_process.processEnvironment();
    if (environment.isEmpty())
        environment = QProcessEnvironment::systemEnvironment();
    environment.insert(name, value);
    m_process.setProcessEnvironment(environment);
}

bool FieldApp::start()
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(m_program, {});
    if (!m_process.waitForStarted(5000))
        return false;
    const std::optional<QByteArray> ready = waitForLine("ready ", 15000);
    if (!ready)
        return false;
    m_windowId = QString::fromLatin1(ready->mid(6));
    return true;
}

bool FieldApp::focus(const QString& field)
{
    // A native Wayland window: the compositor gave the newest window the keyboard, and
    // no tool may click into another program's window there; the field takes it itself.
    if (m_windowId == u"0"_s) {
        if (!request("grab " + field.toUtf8(), "ok"))
            return false;
        const QByteArray expected = "focused " + field.toUtf8() + " 1";
        return QTest::qWaitFor([&] { return request("focused", "focused ") == expected; }, 5000);
    }
    const std::optional<QByteArray> where = request("where " + field.toUtf8(), "where ");
    if (!where)
        return false;
    const QList<QByteArray> parts = where->split(' ');
    if (parts.size() != 4)
        return false;
    if (Desktop::run(u"xdotool"_s, { u"windowfocus"_s, u"--sync"_s, m_windowId }) != 0)
        return false;
    if (Desktop::run(u"xdotool"_s,
            // No --sync: it waits for the pointer to move, which it never does
            // when it is already there. The server keeps motion and click in order.
            { u"mousemove"_s, QString::fromLatin1(parts[2]), QString::fromLatin1(parts[3]), u"click"_s, u"1"_s })
        != 0)
        return false;
    // A field that had the focus already reports no change, so ask rather than wait for one.
    const QByteArray expected = "focused " + field.toUtf8() + " 1";
    return QTest::qWaitFor([&] { return request("focused", "focused ") == expected; }, 5000);
}

bool FieldApp::hasFocus(const QString& field)
{
    return request("focused", "focused ") == "focused " + field.toUtf8() + " 1";
}

std::optional<FieldApp::Content> FieldApp::content(const QString& field)
{
    const std::optional<QByteArray> reply = request("get " + field.toUtf8(), "text " + field.toUtf8() + ' ');
    if (!reply)
        return std::nullopt;
    const QList<QByteArray> parts = reply->split(' ');
    if (parts.size() != 5)
        return std::nullopt;
    return Content { fromBase64(parts[2]), fromBase64(parts[3]), fromBase64(parts[4]) };
}

bool FieldApp::set(const QString& field, const QString& text, int start, int end)
{
    return request("set " + field.toUtf8() + ' ' + toBase64(text) + ' ' + QByteArray::number(start) + ' '
            + QByteArray::number(end),
        "ok")
        .has_value();
}

bool FieldApp::copyImage()
{
    return request("copy-image", "ok").has_value();
}

std::optional<double> FieldApp::sliderValue()
{
    const std::optional<QByteArray> reply = request("get slider", "value slider ");
    if (!reply)
        return std::nullopt;
    bool ok = false;
    const double value = reply->mid(13).toDouble(&ok);
    return ok ? std::optional<double>(value) : std::nullopt;
}

std::optional<FieldApp::Content> FieldApp::waitForText(const QString& field, const QString& text, int timeoutMs)
{
    std::optional<Content> seen;
    const QDeadlineTimer deadline(timeoutMs);
    while (true) {
        seen = content(field);
        if ((seen && seen->text == text) || deadline.hasExpired())
            return seen;
        QTest::qWait(20);
    }
}

QStringList FieldApp::takeEvents()
{
    readLines();
    QStringList events;
    for (const QByteArray& line : std::as_const(m_lines))
        events << QString::fromUtf8(line);
    m_lines.clear();
    return events;
}

std::optional<QByteArray> FieldApp::request(const QByteArray& command, const QByteArray& replyPrefix)
{
    m_process.write(command + '\n');
    return waitForLine(replyPrefix, 5000);
}

std::optional<QByteArray> FieldApp::waitForLine(const QByteArray& prefix, int timeoutMs)
{
    std::optional<QByteArray> found;
    // The outcome is in "found"; a timeout simply leaves it empty.
    static_cast<void>(QTest::qWaitFor(
        [&] {
            readLines();
            for (qsizetype i = 0; i < m_lines.size(); ++i) {
                if (m_lines[i].startsWith(prefix)) {
                    found = m_lines.takeAt(i);
                    return true;
                }
            }
            return m_process.state() == QProcess::NotRunning;
        },
        timeoutMs));
    return found;
}

void FieldApp::readLines()
{
    m_pending.append(m_process.readAllStandardOutput());
    qsizetype end = 0;
    while ((end = m_pending.indexOf('\n')) >= 0) {
        m_lines << m_pending.left(end);
        m_pending.remove(0, end + 1);
    }
}

int Desktop::run(const QString& program, const QStringList& arguments, QByteArray* output, const QByteArray& input)
{
    QProcess process;
    if (!output)
        process.setStandardOutputFile(QProcess::nullDevice());
    process.setProcessChannelMode(output ? QProcess::SeparateChannels : QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    if (!process.waitForStarted(5000))
        return -1;
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 10000)) {
        process.kill();
        process.waitForFinished(2000);
        return -1;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool Desktop::setClipboard(const QByteArray& data, const QString& mimeType)
{
    // xclip stays behind to serve the selection until another client takes it.
    return run(u"xclip"_s, { u"-selection"_s, u"clipboard"_s, u"-t"_s, mimeType, u"-i"_s }, nullptr, data) == 0;
}

std::optional<QString> Desktop::clipboardText()
{
    QByteArray out;
    if (run(u"xclip"_s, { u"-selection"_s, u"clipboard"_s, u"-o"_s, u"-t"_s, u"UTF8_STRING"_s }, &out) != 0)
        return std::nullopt;
    return QString::fromUtf8(out);
}

QStringList Desktop::clipboardTargets()
{
    QByteArray out;
    if (run(u"xclip"_s, { u"-selection"_s, u"clipboard"_s, u"-o"_s, u"-t"_s, u"TARGETS"_s }, &out) != 0)
        return {};
    return QString::fromUtf8(out).split(u'\n', Qt::SkipEmptyParts);
}
