// What the openai speech engine adds between "stop" and the final: the real quillet-server
// with --speech-url pointing at a local endpoint that answers a fixed text at once, against
// that endpoint's own response time for the same WAV posted directly, the way the server
// posts it (multipart form, kept-alive connection). Prints only.
//   ./bench_server_speech [runs]       (default 25; each run streams a 3-second clip in real time)
#include "OpenAiSpeechEngine.h"
#include "ServerProcess.h"
#include "StreamClient.h"
#include "TranscriptionEndpoint.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QHttpMultiPart>
#include <QNetworkReply>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

// Sleeps in the event loop (no busy waiting, which would take a core from the server)
// until `done` holds, looking again whenever an event has been handled.
void spinUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    if (values.empty())
        return 0.0;
    return values[std::min(values.size() - 1, size_t(p / 100.0 * double(values.size() - 1) + 0.5))];
}

// The endpoint's own response time: the same request the server sends, from this process.
double directPostMs(QNetworkAccessManager& network, const QUrl& url, const QByteArray& wav)
{
    auto* form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    QHttpPart file;
    file.setRawHeader("Content-Disposition", R"(form-data; name="file"; filename="audio.wav")");
    file.setRawHeader("Content-Type", "audio/wav");
    file.setBody(wav);
    form->append(file);
    for (const auto& [name, value] : { std::pair { "model", "whisper-1" }, std::pair { "response_format", "json" } }) {
        QHttpPart part;
        part.setRawHeader("Content-Disposition", QByteArray(R"(form-data; name=")") + name + '"');
        part.setBody(value);
        form->append(part);
    }
    QElapsedTimer clock;
    clock.start();
    QNetworkReply* reply = network.post(QNetworkRequest(url), form);
    form->setParent(reply);
    bool done = false;
    double ms = 0;
    QObject::connect(reply, &QNetworkReply::finished, reply, [&] {
        ms = double(clock.nsecsElapsed()) / 1e6;
        done = true;
    });
    spinUntil([&] { return done; }, 30'000);
    reply->deleteLater();
    return done ? ms : -1;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(3, QByteArray(argv[1]).toInt()) : 25;
    const QByteArray pcm = readWavPcm(clip);
    if (pcm.isEmpty()) {
        std::fprintf(stderr, "bench_server_speech: %s is missing (pocketsphinx-testdata)\n", qPrintable(clip));
        return 1;
    }

    TranscriptionEndpoint endpoint(u"whisper-1"_s, QString(), QByteArray());
    endpoint.mode = TranscriptionEndpoint::Mode::Fixed;
    endpoint.fixedText = u"he was not an ill disposed young man"_s;
    ServerProcess server({ u"--speech-url"_s, endpoint.baseUrl(), u"--max-streams"_s, u"8"_s });
    QString error;
    if (!server.start(&error)) {
        std::fprintf(stderr, "bench_server_speech: %s\n", qPrintable(error));
        return 1;
    }
    Http http;
    const QString access = signInThroughSite(http, server, &error).access;
    if (access.isEmpty()) {
        std::fprintf(stderr, "bench_server_speech: %s\n", qPrintable(error));
        return 1;
    }

    // 1. The endpoint alone.
    QNetworkAccessManager network;
    const QByteArray wav = OpenAiSpeechEngine::wavFile(pcm);
    const QUrl url(endpoint.baseUrl() + u"/audio/transcriptions"_s);
    std::vector<double> direct;
    directPostMs(network, url, wav); // opens the connection, as the server's first request does
    for (int i = 0; i < runs; ++i)
        direct.push_back(directPostMs(network, url, wav));

    // 2. Through quillet-server: audio in real time, then "stop", timed to the final and the close.
    std::vector<double> toFinal, toClose;
    int fallbacks = 0;
    for (int i = 0; i < runs + 1; ++i) {
        StreamClient client;
        if (!client.open(server.streamUrl()))
            continue;
        client.sendAuth(access);
        QElapsedTimer realTime;
        realTime.start();
        qint64 sent = 0;
        for (const QByteArray& chunk : chunked(pcm, 1365)) {
            client.sendAudio(chunk);
            sent += chunk.size() / 2;
            const qint64 due = sent * 1000 / 16000 - realTime.elapsed();
            if (due > 0) {
                QEventLoop pause;
                QTimer::singleShot(int(due), Qt::PreciseTimer, &pause, &QEventLoop::quit);
                pause.exec();
            }
        }
        QElapsedTimer sinceStop;
        double finalMs = -1;
        QObject::connect(&client.socket(), &QWebSocket::textMessageReceived, &client, [&](const QString& text) {
            if (finalMs < 0 && text.contains(u"\"final\""_s))
                finalMs = double(sinceStop.nsecsElapsed()) / 1e6;
        });
        sinceStop.start();
        client.sendStop();
        spinUntil([&] { return client.closed(); }, 30'000);
        const double closeMs = double(sinceStop.nsecsElapsed()) / 1e6;
        if (client.texts(u"final"_s) != QStringList { endpoint.fixedText })
            ++fallbacks;
        if (i == 0)
            continue; // the server's first request opens its connection
        toFinal.push_back(finalMs);
        toClose.push_back(closeMs);
    }

    std::printf("bench_server_speech: %d runs, %.1f s clip (%lld bytes of WAV), endpoint answering a fixed text\n",
        runs, double(pcm.size()) / 32000.0, qlonglong(wav.size()));
    std::printf("  endpoint alone (direct POST)    p50 %7.2f ms   p90 %7.2f ms\n", percentile(direct, 50),
        percentile(direct, 90));
    std::printf("  stop -> final through server    p50 %7.2f ms   p90 %7.2f ms\n", percentile(toFinal, 50),
        percentile(toFinal, 90));
    std::printf("  stop -> close through server    p50 %7.2f ms   p90 %7.2f ms\n", percentile(toClose, 50),
        percentile(toClose, 90));
    std::printf("  overhead (p50 final - p50 direct): %.2f ms\n", percentile(toFinal, 50) - percentile(direct, 50));
    if (fallbacks > 0)
        std::printf("  %d runs did not get the endpoint's text\n", fallbacks);
    return 0;
}
