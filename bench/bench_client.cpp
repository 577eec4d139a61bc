// Costs on the client's hot paths: encoding one audio buffer for the stream,
// handling one server message, and the token expiry test run before every request.
#include "dictation/TranscriptionService.h"
#include "services/KeychainHelper.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <benchmark/benchmark.h>

#include <vector>

using namespace Qt::StringLiterals;

namespace {

class CountingDelegate : public QObject, public TranscriptionDelegate
{
public:
    qint64 partials = 0;
    void transcriptionDidReceivePartial(const QString& text) override { partials += text.size(); }
    void transcriptionDidReceiveFinal(const QString&) override { }
    void transcriptionDidEnd() override { }
    void transcriptionDidFail(const QString&, const QString&) override { }
};

// One 4,096-frame capture at 48 kHz becomes 1,365 frames at 16 kHz.
void BM_EncodeAudioBuffer(benchmark::State& state)
{
    std::vector<qint16> samples(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<qint16>((i * 131) & 0x7fff);
    for (auto _ : state) {
        // What sendAudio does before the socket: the JSON text and the frame's QString.
        const QByteArray message = TranscriptionService::audioMessage(samples);
        const QString frame = QString::fromUtf8(message);
        benchmark::DoNotOptimize(frame.constData());
    }
    state.SetLabel("base64 + JSON + QString");
}
BENCHMARK(BM_EncodeAudioBuffer)->Arg(1365)->Arg(1486)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_HandlePartial(benchmark::State& state)
{
    TranscriptionService service;
    CountingDelegate delegate;
    service.setDelegate(&delegate);
    const QByteArray message = R"({"type":"partial","text":"so the quarterly numbers look better than we expected"})";
    for (auto _ : state)
        service.handleMessage(message);
    benchmark::DoNotOptimize(delegate.partials);
}
BENCHMARK(BM_HandlePartial)->Unit(benchmark::kMicrosecond);

void BM_IsExpiringSoon(benchmark::State& state)
{
    const qint64 exp = QDateTime::currentSecsSinceEpoch() + 900;
    const QByteArray payload = QJsonDocument(
        QJsonObject { { u"sub"_s, u"a3f0c2d4-user"_s }, { u"exp"_s, exp }, { u"iat"_s, exp - 900 },
            { u"type"_s,
                u"access"_s } }).toJson(QJsonDocument::Compact);
    const QString token = u"eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."_s
        + QString::fromLatin1(payload.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals))
        + u".c2lnbmF0dXJlLXNpZ25hdHVyZS1zaWduYXR1cmUtc2lnbmF0dXJl"_s;
    bool expiring = true;
    for (auto _ : state) {
        expiring = KeychainHelper::isExpiringSoon(token);
        benchmark::DoNotOptimize(expiring);
    }
    if (expiring)
        state.SkipWithError("a token good for 15 minutes was judged expiring");
}
BENCHMARK(BM_IsExpiringSoon)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
