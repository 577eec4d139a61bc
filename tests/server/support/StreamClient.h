#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QWebSocket>

// Speaks the transcription protocol as the desktop client does and records everything
// the server says, in order, together with how the socket closed.
class StreamClient : public QObject
{
public:
    explicit StreamClient(QObject* parent = nullptr);

    bool open(const QUrl& url, int timeoutMs = 10'000);
    void sendJson(const QJsonObject& message);
    void sendText(const QString& text);
    void sendBinary(const QByteArray& bytes);
    void sendAuth(const QString& token);
    void sendAudio(const QByteArray& pcm);
    void sendStop();
    void abort();

    // Waits until the server closes the socket (or the time is up); true when it closed.
    bool waitClosed(int timeoutMs);
    // Waits until at least `count` messages have arrived.
    bool waitMessages(int count, int timeoutMs);

    const QList<QJsonObject>& messages() const { return m_messages; }
    QStringList texts(const QString& type) const;
    QJsonObject firstOfType(const QString& type) const;
    bool closed() const { return m_closed; }
    int closeCode() const { return m_closeCode; }
    QWebSocket& socket() { return m_socket; }

private:
    QWebSocket m_socket;
    QList<QJsonObject> m_messages;
    bool m_closed = false;
    int m_closeCode = -1;
};

// PCM samples of a RIFF/WAVE file (16-bit mono expected), without its header.
QByteArray readWavPcm(const QString& path);
QList<QByteArray> chunked(const QByteArray& pcm, int samplesPerChunk);
// Word error rate in percent of `hypothesis` against `reference` (words compared in lower case).
double wordErrorRate(const QString& reference, const QString& hypothesis);
