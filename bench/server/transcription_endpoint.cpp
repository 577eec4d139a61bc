// A local OpenAI-compatible POST /v1/audio/transcriptions backed by pocketsphinx_continuous:
// the same endpoint the tests use, as a program, so that scripts/wer.sh and by-hand runs can
// exercise quillet-server's openai engine end to end without a Whisper server.
//   transcription_endpoint      (prints the base URL, e.g. http://127.0.0.1:41234/v1)
#include "TranscriptionEndpoint.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    TranscriptionEndpoint endpoint(QStringLiteral("whisper-1"), QString(), QByteArray());
    if (endpoint.port() == 0) {
        std::fprintf(stderr, "transcription_endpoint: cannot listen\n");
        return 1;
    }
    std::printf("%s\n", qPrintable(endpoint.baseUrl()));
    std::fflush(stdout);
    return app.exec();
}
