#include "TranscriptionEndpoint.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtEndian>

using namespace Qt::Literals::StringLiterals;

struct TranscriptionEndpoint::Pending {
    QPointer<QTcpSocket> socket;
    std::unique_ptr<QProcess> recogniser;
    size_t upload = 0;
    Mode mode = Mode::Recognise;
    bool hold = false;
    bool ready = false;
    QElapsedTimer clock;
};

namespace {

// Checks the header of a 16 kHz mono 16-bit WAV and returns its samples.
QByteArray wavSamples(const QByteArray& wav, QStringList* problems)
{
    if (wav.size() < 44 || !wav.startsWith("RIFF") || wav.mid(8, 8) != "WAVEfmt ") {
        *problems << u"the file is not a RIFF/WAVE file"_s;
        return {};
    }
    const char* h = wav.constData();
    if (qFromLittleEndian<quint32>(h + 4) != quint32(wav.size() - 8))
        *problems << u"RIFF size %1 for a file of %2 bytes"_s.arg(qFromLittleEndian<quint32>(h + 4)).arg(wav.size());
    if (qFromLittleEndian<quint32>(h + 16) != 16 || qFromLittleEndian<quint16>(h + 20) != 1)
        *problems << u"the format chunk is not plain PCM"_s;
    if (qFromLittleEndian<quint16>(h + 22) != 1)
        *problems << u"%1 channels"_s.arg(qFromLittleEndian<quint16>(h + 22));
    if (qFromLittleEndian<quint32>(h + 24) != 16000)
        *problems << u"sample rate %1"_s.arg(qFromLittleEndian<quint32>(h + 24));
    if (qFromLittleEndian<quint32>(h + 28) != 32000 || qFromLittleEndian<quint16>(h + 32) != 2)
        *problems << u"byte rate or block alignment wrong"_s;
    if (qFromLittleEndian<quint16>(h + 34) != 16)
        *problems << u"%1 bits per sample"_s.arg(qFromLittleEndian<quint16>(h + 34));
    if (wav.mid(36, 4) != "data") {
        *problems << u"no data chunk after the format chunk"_s;
        return {};
    }
    const quint32 size = qFromLittleEndian<quint32>(h + 40);
    if (size != quint32(wav.size() - 44))
        *problems << u"data size %1 for %2 bytes of samples"_s.arg(size).arg(wav.size() - 44);
    return wav.mid(44);
}

} // namespace

TranscriptionEndpoint::TranscriptionEndpoint(QString expectedModel, QString expectedLanguage, QByteArray expectedKey)
    : m_expectedModel(std::move(expectedModel))
    , m_expectedLanguage(std::move(expectedLanguage))
    , m_expectedKey(std::move(expectedKey))
{
    QObject::connect(&m_listener, &QTcpServer::newConnection, &m_listener, [this] { onConnection(); });
    if (m_listener.listen(QHostAddress::LocalHost, 0))
        m_port = m_listener.serverPort();
}

void TranscriptionEndpoint::onConnection()
{
    while (QTcpSocket* socket = m_listener.nextPendingConnection()) {
        socket->setParent(&m_listener);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { onReadable(socket); });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, [this, socket] {
            m_buffers.remove(socket);
            socket->deleteLater();
        });
    }
}

void TranscriptionEndpoint::onReadable(QTcpSocket* socket)
{
    QByteArray& buffer = m_buffers[socket];
    buffer += socket->readAll();
    while (true) {
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        Head head;
        const QList<QByteArray> requestLine = lines.constFirst().trimmed().split(' ');
        head.method = requestLine.value(0);
        head.path = requestLine.value(1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines.at(i).indexOf(':');
            if (colon > 0)
                head.headers.insert(lines.at(i).left(colon).trimmed().toLower(), lines.at(i).mid(colon + 1).trimmed());
        }
        const qsizetype length = head.headers.value("content-length").toLongLong();
        if (buffer.size() < headEnd + 4 + length)
            return;
        const QByteArray body = buffer.mid(headEnd + 4, length);
        buffer.remove(0, headEnd + 4 + length);
        handle(head, body, socket);
    }
}

TranscriptionEndpoint::~TranscriptionEndpoint()
{
    // The connections go with the listener, after the buffers they would update.
    for (QTcpSocket* socket : m_listener.findChildren<QTcpSocket*>())
        QObject::disconnect(socket, nullptr, nullptr, nullptr);
    for (auto& pending : m_pending) {
        if (pending->recogniser) {
            pending->recogniser->disconnect();
            pending->recogniser->kill();
            pending->recogniser->waitForFinished(2000);
        }
    }
}

QString TranscriptionEndpoint::baseUrl() const
{
    return u"http://127.0.0.1:%1/v1"_s.arg(m_port);
}

void TranscriptionEndpoint::close()
{
    m_listener.close();
}

QByteArray TranscriptionEndpoint::dispositionParameter(const QByteArray& disposition, const QByteArray& name)
{
    for (QByteArray item : disposition.split(';')) {
        item = item.trimmed();
        if (!item.startsWith(name + '='))
            continue;
        QByteArray value = item.mid(name.size() + 1);
        if (value.size() >= 2 && value.startsWith('"') && value.endsWith('"'))
            value = value.mid(1, value.size() - 2);
        return value;
    }
    return {};
}

bool TranscriptionEndpoint::parseMultipart(const QByteArray& contentType, const QByteArray& body, QList<Part>* parts)
{
    if (!contentType.trimmed().toLower().startsWith("multipart/form-data"))
        return false;
    const QByteArray boundary = dispositionParameter(contentType, "boundary");
    if (boundary.isEmpty())
        return false;
    const QByteArray delimiter = "--" + boundary;
    qsizetype at = body.indexOf(delimiter);
    if (at < 0)
        return false;
    while (true) {
        at += delimiter.size();
        if (body.mid(at, 2) == "--")
            return true; // the closing delimiter
        if (body.mid(at, 2) != "\r\n")
            return false;
        at += 2;
        const qsizetype headEnd = body.indexOf("\r\n\r\n", at);
        if (headEnd < 0)
            return false;
        Part part;
        for (const QByteArray& line : body.mid(at, headEnd - at).split('\n')) {
            const qsizetype colon = line.indexOf(':');
            if (colon < 0)
                return false;
            const QByteArray name = line.left(colon).trimmed().toLower();
            const QByteArray value = line.mid(colon + 1).trimmed();
            if (name == "content-disposition")
                part.disposition = value;
            else if (name == "content-type")
                part.contentType = value;
        }
        const qsizetype next = body.indexOf("\r\n" + delimiter, headEnd + 4);
        if (next < 0)
            return false;
        part.body = body.mid(headEnd + 4, next - headEnd - 4);
        parts->append(part);
        at = next + 2;
    }
}

void TranscriptionEndpoint::handle(const Head& head, const QByteArray& body, QTcpSocket* socket)
{
    Upload upload;
    if (head.method != "POST")
        upload.problems << u"method is %1"_s.arg(QString::fromLatin1(head.method));
    if (head.path != "/v1/audio/transcriptions")
        upload.problems << u"path is %1"_s.arg(QString::fromLatin1(head.path));
    upload.authorization = head.headers.value("authorization");
    upload.contentType = head.headers.value("content-type");
    const QByteArray expectedAuthorization = m_expectedKey.isEmpty() ? QByteArray() : "Bearer " + m_expectedKey;
    if (upload.authorization != expectedAuthorization)
        upload.problems << u"Authorization is \"%1\""_s.arg(QString::fromLatin1(upload.authorization));

    QList<Part> parts;
    if (!parseMultipart(upload.contentType, body, &parts))
        upload.problems << u"not a well-formed multipart/form-data body"_s;
    bool sawFile = false;
    for (const Part& part : std::as_const(parts)) {
        if (!part.disposition.startsWith("form-data"))
            upload.problems << u"a part that is not form-data"_s;
        const QString name = QString::fromUtf8(dispositionParameter(part.disposition, "name"));
        upload.fields << name;
        if (name == u"file"_s) {
            sawFile = true;
            upload.filename = QString::fromUtf8(dispositionParameter(part.disposition, "filename"));
            upload.fileContentType = part.contentType;
            if (!upload.filename.endsWith(u".wav"_s))
                upload.problems << u"file name \"%1\""_s.arg(upload.filename);
            if (part.contentType != "audio/wav" && part.contentType != "audio/x-wav")
                upload.problems << u"file content type \"%1\""_s.arg(QString::fromLatin1(part.contentType));
            upload.pcm = wavSamples(part.body, &upload.problems);
        } else if (name == u"model"_s) {
            upload.model = QString::fromUtf8(part.body);
        } else if (name == u"language"_s) {
            upload.language = QString::fromUtf8(part.body);
        } else if (name == u"response_format"_s) {
            upload.responseFormat = QString::fromUtf8(part.body);
        } else {
            upload.problems << u"unexpected field \"%1\""_s.arg(name);
        }
    }
    if (!sawFile)
        upload.problems << u"no file"_s;
    if (upload.model != m_expectedModel)
        upload.problems << u"model \"%1\""_s.arg(upload.model);
    if (upload.language != m_expectedLanguage)
        upload.problems << u"language \"%1\""_s.arg(upload.language);
    if (upload.responseFormat != u"json"_s)
        upload.problems << u"response_format \"%1\""_s.arg(upload.responseFormat);
    if (upload.fields.removeDuplicates() > 0)
        upload.problems << u"a field sent twice"_s;

    auto pending = std::make_unique<Pending>();
    pending->clock.start();
    pending->socket = socket;
    pending->upload = uploads.size();
    pending->mode = mode;
    pending->hold = holdNext > 0;
    holdNext = std::max(0, holdNext - 1);
    uploads.push_back(upload);
    Pending& entry = *pending;
    m_pending.push_back(std::move(pending));
    if (entry.hold)
        m_held.push_back(&entry);

    if (entry.mode != Mode::Recognise) {
        entry.ready = true;
        if (!entry.hold)
            answer(entry);
        return;
    }
    const QString path = m_dir.filePath(u"upload-%1.wav"_s.arg(++m_files));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        uploads[entry.upload].problems << u"the test could not store the upload"_s;
        entry.mode = Mode::ServerError;
        entry.ready = true;
        answer(entry);
        return;
    }
    // The file part as it came, header and all: the recogniser reads it like any WAV.
    for (const Part& part : std::as_const(parts)) {
        if (dispositionParameter(part.disposition, "name") == "file")
            file.write(part.body);
    }
    file.close();
    entry.recogniser = std::make_unique<QProcess>();
    QObject::connect(entry.recogniser.get(), &QProcess::finished, entry.recogniser.get(), [this, &entry] {
        uploads[entry.upload].answer = QString::fromUtf8(entry.recogniser->readAllStandardOutput()).simplified();
        entry.ready = true;
        if (!entry.hold)
            answer(entry);
    });
    entry.recogniser->start(
        QStringLiteral(POCKETSPHINX_CONTINUOUS), { u"-infile"_s, path, u"-logfn"_s, u"/dev/null"_s });
}

void TranscriptionEndpoint::releaseHeld()
{
    const std::vector<Pending*> held = std::exchange(m_held, {});
    for (Pending* entry : held) {
        entry->hold = false;
        if (entry->ready)
            answer(*entry);
    }
}

void TranscriptionEndpoint::answer(Pending& pending)
{
    Upload& upload = uploads[pending.upload];
    upload.recogniseMs = pending.clock.elapsed();
    int status = 200;
    QByteArray body;
    switch (pending.mode) {
    case Mode::Recognise:
        body = QJsonDocument(QJsonObject { { u"text"_s, u" "_s + upload.answer + u"\n"_s } }).toJson();
        break;
    case Mode::ServerError:
        status = 500;
        body = R"({"error":"model crashed"})";
        break;
    case Mode::Unauthorized:
        status = 401;
        body = R"({"error":"invalid api key"})";
        break;
    case Mode::Malformed:
        body = R"({"text": "half an answ)";
        break;
    case Mode::NoText:
        body = R"({"segments":0,"duration":1.5})";
        break;
    case Mode::Stall:
        return; // the connection stays open, unanswered
    case Mode::Fixed:
        body = QJsonDocument(QJsonObject { { u"text"_s, fixedText } }).toJson(QJsonDocument::Compact);
        break;
    }
    if (!pending.socket)
        return;
    const QByteArray reason = status == 200 ? "OK" : status == 401 ? "Unauthorized" : "Internal Server Error";
    pending.socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reason
        + "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n"
        + body);
}
