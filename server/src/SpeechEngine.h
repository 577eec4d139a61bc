#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <memory>

class QObject;

// Receives one stream's results, always on the thread of the context object that was
// given to SpeechEngine::open(), and never after the stream has been destroyed.
class SpeechSink
{
public:
    virtual void speechPartial(const QString& text) = 0;
    virtual void speechFinal(const QString& text) = 0;
    // After finish(): every final has been delivered.
    virtual void speechFinished() = 0;
    virtual void speechFailed(const QString& reason) = 0;

protected:
    ~SpeechSink() = default;
};

// One utterance stream. Both calls return at once; decoding happens elsewhere.
// Destroying the stream cancels whatever is still queued for it.
class SpeechStream
{
public:
    virtual ~SpeechStream() = default;
    // 16 kHz mono signed 16-bit little-endian samples.
    virtual void feed(QByteArray pcm) = 0;
    // Decodes what remains, delivers the last finals, then speechFinished().
    virtual void finish() = 0;
};

// The seam between the transcription stream and a recogniser.
class SpeechEngine
{
public:
    virtual ~SpeechEngine() = default;
    virtual QString name() const = 0;
    virtual std::unique_ptr<SpeechStream> open(QObject* context, SpeechSink* sink) = 0;
    // What /health shows about a remote recogniser behind this engine; empty when there is none.
    virtual QJsonObject endpointStatus() const { return {}; }
};
