// Streams WAV files through a running quillet-server exactly as the desktop client does
// (sign-in through the web pages, the access token in the stream's "auth" message, audio in
// 1,365-sample chunks, "stop", finals until the server closes), as fast as the server takes
// them, and prints each file's transcript as a line of NIST's trn format, "words (id)".
//   wer_stream_client --api http://127.0.0.1:8000 --site http://127.0.0.1:3000 clip1.wav clip2.wav ...
// A file that fails prints an empty transcript and a line on standard error.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrlQuery>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace {

QString signIn(Http& http, const QUrl& site, QString* error)
{
    const HttpResult page = http.get(site.resolved(QUrl(u"/signin?source=mac-app"_s)));
    static const QRegularExpression formField(u"name=\"form\" value=\"([^\"]+)\""_s);
    const auto form = formField.match(QString::fromUtf8(page.body));
    if (page.status != 200 || !form.hasMatch()) {
        *error = u"the sign-in page answered %1 without a form"_s.arg(page.status);
        return {};
    }
    const HttpResult answer = http.post(site.resolved(QUrl(u"/signin"_s)),
        "form=" + QUrl::toPercentEncoding(form.captured(1)) + "&source=mac-app", "application/x-www-form-urlencoded");
    static const QRegularExpression link(u"id=\"open-app\" href=\"([^\"]+)\""_s);
    const auto match = link.match(QString::fromUtf8(answer.body));
    if (answer.status != 200 || !match.hasMatch()) {
        *error = u"signing in answered %1 without a deep link"_s.arg(answer.status);
        return {};
    }
    const QUrlQuery query(QUrl(match.captured(1).replace(u"&amp;"_s, u"&"_s)));
    return query.queryItemValue(u"token"_s, QUrl::FullyDecoded);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption api(u"api"_s, u"API address of the server (default http://127.0.0.1:8000)."_s, u"url"_s,
        u"http://127.0.0.1:8000"_s);
    const QCommandLineOption site(u"site"_s, u"Web site address of the server (default http://127.0.0.1:3000)."_s,
        u"url"_s, u"http://127.0.0.1:3000"_s);
    parser.addOptions({ api, site });
    parser.addPositionalArgument(u"files"_s, u"16 kHz mono 16-bit WAV files."_s);
    parser.process(app);

    Http http;
    QString error;
    const QString token = signIn(http, QUrl(parser.value(site)), &error);
    if (token.isEmpty()) {
        std::fprintf(stderr, "wer_stream_client: %s\n", qPrintable(error));
        return 1;
    }
    QString stream = parser.value(api);
    stream.replace(u"https://"_s, u"wss://"_s).replace(u"http://"_s, u"ws://"_s);
    const QUrl streamUrl(stream + u"/ws/transcribe"_s);

    int failures = 0;
    for (const QString& path : parser.positionalArguments()) {
        const QString id = QFileInfo(path).completeBaseName();
        const QByteArray pcm = readWavPcm(path);
        StreamClient client;
        QString text;
        if (pcm.isEmpty()) {
            std::fprintf(stderr, "wer_stream_client: %s is not a 16-bit WAV file\n", qPrintable(path));
            ++failures;
        } else if (!client.open(streamUrl)) {
            std::fprintf(stderr, "wer_stream_client: cannot open %s\n", qPrintable(streamUrl.toString()));
            ++failures;
        } else {
            client.sendAuth(token);
            for (const QByteArray& chunk : chunked(pcm, 1365))
                client.sendAudio(chunk);
            client.sendStop();
            if (!client.waitClosed(120'000) || client.closeCode() != 1000) {
                std::fprintf(stderr, "wer_stream_client: %s: the stream ended with close code %d %s\n", qPrintable(id),
                    client.closeCode(), qPrintable(client.firstOfType(u"error"_s).value(u"code"_s).toString()));
                ++failures;
            }
            text = client.texts(u"final"_s).join(u' ').simplified();
        }
        std::printf("%s (%s)\n", qPrintable(text.toLower()), qPrintable(id));
        std::fflush(stdout);
    }
    return failures == 0 ? 0 : 1;
}
