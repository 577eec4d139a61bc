#pragma once

#include "HttpTestServer.h"
#include "MemorySecretStore.h"
#include "ServerProcess.h"
#include "TestInfoFile.h"
#include "TestTokens.h"
#include "services/KeychainHelper.h"
#include "services/SettingsStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <functional>
#include <memory>

using namespace Qt::StringLiterals;

// What the clean-up and rewrite tests share: a scripted HTTP server the backend address
// points at, tokens in a recording in-memory store, the user's settings in a private
// file, and (started on demand) the real quillet-server with an account signed in
// through its web pages.
class TextServiceFixture
{
public:
    TextServiceFixture()
    {
        SettingsStore::resetShared(std::make_unique<SettingsStore>(
            std::make_unique<QSettings>(m_dir.filePath(u"settings.ini"_s), QSettings::IniFormat)));
        auto store = std::make_unique<MemorySecretStore>();
        secrets = store.get();
        KeychainHelper::setStore(std::move(store));
        server = std::make_unique<HttpTestServer>([this](const HttpTestRequest& r) { return reply(r); });
        pointConfigAt(server->baseUrl());
        signIn(accessToken, refreshToken);
    }
    ~TextServiceFixture()
    {
        m_info.reset();
        KeychainHelper::setStore(nullptr);
        SettingsStore::resetShared();
    }
    TextServiceFixture(const TextServiceFixture&) = delete;
    TextServiceFixture& operator=(const TextServiceFixture&) = delete;

    void pointConfigAt(const QString& base)
    {
        m_info.reset(); // its destructor restores the default lookup
        m_info = std::make_unique<TestInfoFile>(QJsonObject { { u"API_BASE_URL"_s, base } });
    }

    void signIn(const QString& access, const QString& refresh)
    {
        KeychainHelper::save(KeychainHelper::accessTokenKey, access);
        KeychainHelper::save(KeychainHelper::refreshTokenKey, refresh);
    }

    // The real backend (started here the first time); points the client at it and stores
    // a fresh token pair from its sign-in page. Empty on success, else the reason.
    QString useRealServer(ServerProcess& real)
    {
        QString error;
        if (!real.isRunning() && !real.start(&error))
            return error;
        Http http;
        const TokenPair pair = signInThroughSite(http, real, &error);
        if (!error.isEmpty())
            return error;
        realPair = pair;
        pointConfigAt(real.apiUrl({}).toString());
        signIn(pair.access, pair.refresh);
        return {};
    }

    static QJsonObject bodyOf(const HttpTestRequest& request) { return QJsonDocument::fromJson(request.body).object(); }

    static HttpTestReply json(int status, const QJsonObject& body)
    {
        return HttpTestReply { status, QJsonDocument(body).toJson(QJsonDocument::Compact) };
    }

    QByteArray pairBody(const QString& access, const QString& refresh) const
    {
        return QJsonDocument(QJsonObject { { u"access_token"_s, access }, { u"refresh_token"_s, refresh } })
            .toJson(QJsonDocument::Compact);
    }

    QList<QByteArray> paths() const
    {
        QList<QByteArray> list;
        for (const HttpTestRequest& request : std::as_const(server->requests))
            list.append(request.path);
        return list;
    }

    const QString accessToken = TestTokens::expiringIn(3600);
    const QString refreshToken = u"refresh-5d0c2e"_s;
    const QString renewedAccessToken = TestTokens::expiringIn(7200);
    const QString renewedRefreshToken = u"refresh-a41b97"_s;

    MemorySecretStore* secrets = nullptr; // owned by KeychainHelper
    std::function<HttpTestReply(const HttpTestRequest&)> reply = [](const HttpTestRequest&) {
        return HttpTestReply { 500, "{}" };
    };
    std::unique_ptr<HttpTestServer> server;
    TokenPair realPair;

private:
    QTemporaryDir m_dir;
    std::unique_ptr<TestInfoFile> m_info;
};
