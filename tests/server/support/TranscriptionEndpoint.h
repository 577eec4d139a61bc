#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// An OpenAI-compatible POST /v1/audio/transcriptions on loopback, backed by a real
// recogniser: every uploaded WAV goes through pocketsphinx_continuous and its words come
// back as {"text": ...}. Each request is checked against the format the server must send
// (multipart form with file, model, optional language, response_format=json; the bearer
// key), and whatever does not match is recorded in `problems`.
//
// It is a small HTTP/1.1 server of its own on QTcpServer, with keep-alive: Qt 6.4's
// QHttpServerResponder keeps a reference to its request and cannot answer later, which a
// recogniser and a held answer need.
class TranscriptionEndpoint
{
public:
    enum class Mode {
        Recognise, // the recogniser's text
        ServerError, // 500
        Unauthorized, // 401
        Malformed, // 200 with a body that is not JSON
        NoText, // 200 with a JSON object without "text"
        Stall, // never answers
        Fixed, // `fixedText` at once, without recognising anything
    };

    struct Upload {
        QByteArray authorization;
        QByteArray contentType;
        QString filename;
        QByteArray fileContentType;
        QByteArray pcm; // the WAV's samples
        QString model;
        QString language; // empty when not sent
        QString responseFormat;
        QStringList fields; // every form field's name, in order
        QStringList problems;
        QString answer; // what the recogniser said (Recognise mode)
        qint64 recogniseMs = 0; // time from the request's arrival to its answer
    };

    // `expectedKey` empty: the request must carry no Authorization header.
    TranscriptionEndpoint(QString expectedModel, QString expectedLanguage, QByteArray expectedKey);
    ~TranscriptionEndpoint();

    quint16 port() const { return m_port; }
    QString baseUrl() const;
    // Stops listening: the port refuses connections from now on.
    void close();

    Mode mode = Mode::Recognise;
    QString fixedText;
    // The answers of this many of the next requests are kept until releaseHeld().
    int holdNext = 0;
    void releaseHeld();
    int held() const { return int(m_held.size()); }

    std::vector<Upload> uploads;

    // Parses multipart/form-data; false when the framing is broken.
    struct Part {
        QByteArray disposition;
        QByteArray contentType;
        QByteArray body;
    };
    static bool parseMultipart(const QByteArray& contentType, const QByteArray& body, QList<Part>* parts);
    static QByteArray dispositionParameter(const QByteArray& disposition, const QByteArray& name);

private:
    struct Pending;
    struct Head {
        QByteArray method;
        QByteArray path;
        QHash<QByteArray, QByteArray> headers; // names in lower case
    };
    void onConnection();
    void onReadable(QTcpSocket* socket);
    void handle(const Head& head, const QByteArray& body, QTcpSocket* socket);
    void answer(Pending& pending);

    QString m_expectedModel;
    QString m_expectedLanguage;
    QByteArray m_expectedKey;
    QTemporaryDir m_dir;
    int m_files = 0;
    QTcpServer m_listener;
    QHash<QTcpSocket*, QByteArray> m_buffers;
    quint16 m_port = 0;
    std::vector<std::unique_ptr<Pending>> m_pending;
    std::vector<Pending*> m_held;
};
