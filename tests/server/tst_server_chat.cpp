// The chat-completions text engine against a small local HTTP server that plays an
// OpenAI-compatible endpoint: what is sent, what comes back, and the fall-back to the
// rule engine when the endpoint fails, stalls or is not there at all.
#include "ServerProcess.h"

#include <QHttpServer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTest>

#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;

class FakeChatEndpoint
{
public:
    enum class Mode { Answer, Fail, Stall };

    FakeChatEndpoint()
    {
        m_http.route(u"/v1/chat/completions"_s, QHttpServerRequest::Method::Post,
            [this](const QHttpServerRequest& request, QHttpServerResponder&& responder) {
                requests.push_back(QJsonDocument::fromJson(request.body()).object());
                authorizations.push_back(request.value("Authorization"));
                switch (mode) {
                case Mode::Answer: {
                    const QJsonObject reply { { u"id"_s, u"chatcmpl-1"_s }, { u"object"_s, u"chat.completion"_s },
                        { u"choices"_s,
                            QJsonArray { QJsonObject { { u"index"_s, 0 },
                                { u"message"_s,
                                    QJsonObject { { u"role"_s, u"assistant"_s }, { u"content"_s, answer } } },
                                { u"finish_reason"_s, u"stop"_s } } } } };
                    responder.write(QJsonDocument(reply));
                    return;
                }
                case Mode::Fail:
                    responder.write(QJsonDocument(QJsonObject { { u"error"_s, u"overloaded"_s } }),
                        QHttpServerResponder::StatusCode::ServiceUnavailable);
                    return;
                case Mode::Stall:
                    // Never answers; the connection stays open.
                    m_stalled.push_back(std::make_unique<QHttpServerResponder>(std::move(responder)));
                    return;
                }
            });
        port = m_http.listen(QHostAddress::LocalHost, 0);
    }

    quint16 port = 0;
    Mode mode = Mode::Answer;
    QString answer;
    std::vector<QJsonObject> requests;
    std::vector<QByteArray> authorizations;

private:
    QHttpServer m_http;
    std::vector<std::unique_ptr<QHttpServerResponder>> m_stalled;
};

class ServerChat : public QObject
{
    Q_OBJECT

private:
    FakeChatEndpoint m_endpoint;
    std::unique_ptr<ServerProcess> m_server;
    Http m_http;
    QString m_access;

    HttpResult cleanup(const QString& text, const QStringList& dictionary)
    {
        return m_http.postJson(m_server->apiUrl(u"/cleanup"_s),
            { { u"text"_s, text }, { u"dictionary"_s, QJsonArray::fromStringList(dictionary) } }, m_access.toUtf8());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_endpoint.port != 0);
        m_server = std::make_unique<ServerProcess>(
            QStringList { u"--chat-url"_s, u"http://127.0.0.1:%1/v1"_s.arg(m_endpoint.port), u"--chat-model"_s,
                u"tiny-model"_s, u"--chat-cleanup-timeout"_s, u"700"_s, u"--chat-rewrite-timeout"_s, u"900"_s });
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"QUILLET_CHAT_API_KEY"_s, u"sk-test-key"_s);
        m_server->setEnvironment(environment);
        QString error;
        QVERIFY2(m_server->start(&error), qPrintable(error));
        m_access = signInThroughSite(m_http, *m_server, &error).access;
        QVERIFY2(!m_access.isEmpty(), qPrintable(error));
    }

    void healthNamesTheChatEngine()
    {
        QCOMPARE(
            m_http.get(m_server->apiUrl(u"/health"_s)).json().value(u"text_engine"_s).toString(), u"chat:tiny-model"_s);
    }

    void cleanupGoesThroughTheEndpoint()
    {
        m_endpoint.mode = FakeChatEndpoint::Mode::Answer;
        m_endpoint.answer = u"  The quillet team shipped it.  "_s;
        m_endpoint.requests.clear();
        const HttpResult result = cleanup(u"um the quillet team uh shipped it"_s, { u"Quillet"_s });
        QCOMPARE(result.status, 200);
        // The model's answer, trimmed, with the dictionary's spelling enforced.
        QCOMPARE(result.json().value(u"text"_s).toString(), u"The Quillet team shipped it."_s);

        QCOMPARE(m_endpoint.requests.size(), size_t(1));
        const QJsonObject sent = m_endpoint.requests.front();
        QCOMPARE(sent.value(u"model"_s).toString(), u"tiny-model"_s);
        const QJsonArray messages = sent.value(u"messages"_s).toArray();
        QCOMPARE(messages.size(), 2);
        QCOMPARE(messages.at(0).toObject().value(u"role"_s).toString(), u"system"_s);
        QVERIFY(messages.at(0).toObject().value(u"content"_s).toString().contains(u"Quillet"_s));
        QCOMPARE(messages.at(1).toObject().value(u"role"_s).toString(), u"user"_s);
        QCOMPARE(messages.at(1).toObject().value(u"content"_s).toString(), u"um the quillet team uh shipped it"_s);
        QCOMPARE(m_endpoint.authorizations.back(), QByteArray("Bearer sk-test-key"));
    }

    void rewriteAsksForTheTone()
    {
        m_endpoint.mode = FakeChatEndpoint::Mode::Answer;
        m_endpoint.answer = u"Please send the report by Friday."_s;
        m_endpoint.requests.clear();
        const HttpResult result = m_http.postJson(m_server->apiUrl(u"/rewrite"_s),
            { { u"text"_s, u"can you send the report by friday"_s }, { u"tone"_s, u"firm"_s },
                { u"dictionary"_s, QJsonArray {} } },
            m_access.toUtf8());
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(), u"Please send the report by Friday."_s);
        const QString system = m_endpoint.requests.front()
                                   .value(u"messages"_s)
                                   .toArray()
                                   .at(0)
                                   .toObject()
                                   .value(u"content"_s)
                                   .toString();
        QVERIFY2(system.contains(u"firm"_s), qPrintable(system));
    }

    void failingEndpointFallsBackToRules()
    {
        m_endpoint.mode = FakeChatEndpoint::Mode::Fail;
        const HttpResult result = cleanup(u"um the the build is green"_s, {});
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(), u"The build is green."_s);
    }

    void stalledEndpointFallsBackAfterTheTimeout()
    {
        m_endpoint.mode = FakeChatEndpoint::Mode::Stall;
        const HttpResult result = cleanup(u"uh it works"_s, {});
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(), u"It works."_s);
        const HttpResult rewrite = m_http.postJson(m_server->apiUrl(u"/rewrite"_s),
            { { u"text"_s, u"i am gonna fix it"_s }, { u"tone"_s, u"professional"_s },
                { u"dictionary"_s, QJsonArray {} } },
            m_access.toUtf8());
        QCOMPARE(rewrite.status, 200);
        QCOMPARE(rewrite.json().value(u"text"_s).toString(), u"I am going to fix it."_s);
    }

    void unreachableEndpointFallsBack()
    {
        // A port that was free a moment ago: nothing listens there.
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const quint16 closedPort = probe.serverPort();
        probe.close();
        ServerProcess server({ u"--chat-url"_s, u"http://127.0.0.1:%1/v1/chat/completions"_s.arg(closedPort) });
        QString error;
        QVERIFY2(server.start(&error), qPrintable(error));
        const QString access = signInThroughSite(m_http, server, &error).access;
        const HttpResult result = m_http.postJson(server.apiUrl(u"/cleanup"_s),
            { { u"text"_s, u"hmm so so it works"_s }, { u"dictionary"_s, QJsonArray {} } }, access.toUtf8());
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(), u"So it works."_s);
        QVERIFY(server.output().contains("answering with the rule engine"));
        QVERIFY(!m_server->output().contains("sk-test-key"));
    }
};

QTEST_GUILESS_MAIN(ServerChat)
#include "tst_server_chat.moc"
