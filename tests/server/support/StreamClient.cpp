#include "StreamClient.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QTimer>
#include <QtEndian>

#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

bool spinUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done() && !deadline.hasExpired()) {
        QEventLoop loop;
        QTimer::singleShot(5, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return done();
}

} // namespace

StreamClient::StreamClient(QObject* parent)
    : QObject(parent)
{
    m_socket.setMaxAllowedIncomingMessageSize(64 * 1024 * 1024);
    connect(&m_socket, &QWebSocket::textMessageReceived, this,
        [this](const QString& text) { m_messages << QJsonDocument::fromJson(text.toUtf8()).object(); });
    connect(&m_socket, &QWebSocket::binaryMessageReceived, this,
        [this](const QByteArray& data) { m_messages << QJsonDocument::fromJson(data).object(); });
    connect(&m_socket, &QWebSocket::disconnected, this, [this] {
        m_closed = true;
        m_closeCode = m_socket.closeCode();
    });
}

bool StreamClient::open(const QUrl& url, int timeoutMs)
{
    m_socket.open(url);
    return spinUntil([this] { return m_socket.state() == QAbstractSocket::ConnectedState || m_closed; }, timeoutMs)
        && !m_closed;
}

void StreamClient::sendJson(const QJsonObject& message)
{
    m_socket.sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void StreamClient::sendText(const QString& text)
{
    m_socket.sendTextMessage(text);
}

void StreamClient::sendBinary(const QByteArray& bytes)
{
    m_socket.sendBinaryMessage(bytes);
}

void StreamClient::sendAuth(const QString& token)
{
    sendJson({ { u"type"_s, u"auth"_s }, { u"token"_s, token } });
}

void StreamClient::sendAudio(const QByteArray& pcm)
{
    sendJson({ { u"type"_s, u"audio"_s }, { u"data"_s, QString::fromLatin1(pcm.toBase64()) } });
}

void StreamClient::sendStop()
{
    sendJson({ { u"type"_s, u"stop"_s } });
}

void StreamClient::abort()
{
    m_socket.abort();
}

bool StreamClient::waitClosed(int timeoutMs)
{
    return spinUntil([this] { return m_closed; }, timeoutMs);
}

bool StreamClient::waitMessages(int count, int timeoutMs)
{
    return spinUntil([this, count] { return m_messages.size() >= count || m_closed; }, timeoutMs)
        && m_messages.size() >= count;
}

QStringList StreamClient::texts(const QString& type) const
{
    QStringList out;
    for (const QJsonObject& message : m_messages) {
        if (message.value(u"type"_s).toString() == type)
            out << message.value(u"text"_s).toString();
    }
    return out;
}

QJsonObject StreamClient::firstOfType(const QString& type) const
{
    for (const QJsonObject& message : m_messages) {
        if (message.value(u"type"_s).toString() == type)
            return message;
    }
    return {};
}

QByteArray readWavPcm(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    if (bytes.size() < 12 || !bytes.startsWith("RIFF") || bytes.mid(8, 4) != "WAVE")
        return {};
    qsizetype at = 12;
    while (at + 8 <= bytes.size()) {
        const QByteArray id = bytes.mid(at, 4);
        const quint32 size = qFromLittleEndian<quint32>(bytes.constData() + at + 4);
        if (id == "data")
            return bytes.mid(at + 8, size);
        at += 8 + size + (size & 1);
    }
    return {};
}

QList<QByteArray> chunked(const QByteArray& pcm, int samplesPerChunk)
{
    QList<QByteArray> chunks;
    const qsizetype step = qsizetype(samplesPerChunk) * 2;
    for (qsizetype at = 0; at < pcm.size(); at += step)
        chunks << pcm.mid(at, step);
    return chunks;
}

double wordErrorRate(const QString& reference, const QString& hypothesis)
{
    const QStringList ref = reference.toLower().split(u' ', Qt::SkipEmptyParts);
    const QStringList hyp = hypothesis.toLower().split(u' ', Qt::SkipEmptyParts);
    if (ref.isEmpty())
        return hyp.isEmpty() ? 0.0 : 100.0;
    std::vector<int> previous(size_t(hyp.size()) + 1), current(size_t(hyp.size()) + 1);
    for (qsizetype j = 0; j <= hyp.size(); ++j)
        previous[size_t(j)] = int(j);
    for (qsizetype i = 1; i <= ref.size(); ++i) {
        current[0] = int(i);
        for (qsizetype j = 1; j <= hyp.size(); ++j) {
            const int substitution = previous[size_t(j - 1)] + (ref.at(i - 1) == hyp.at(j - 1) ? 0 : 1);
            current[size_t(j)] = std::min({ substitution, previous[size_t(j)] + 1, current[size_t(j - 1)] + 1 });
        }
        std::swap(previous, current);
    }
    return 100.0 * previous[size_t(hyp.size())] / double(ref.size());
}
