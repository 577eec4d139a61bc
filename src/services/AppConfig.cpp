#include "services/AppConfig.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

namespace {

const QString kInfoFileName = u"quillet-info.json"_s;

QString& infoFileOverride()
{
    static QString path;
    return path;
}

QString findInfoFile()
{
    if (!infoFileOverride().isEmpty())
        return infoFileOverride();
    const QString dir = QCoreApplication::applicationDirPath();
    for (const QString& candidate : { dir + u'/' + kInfoFileName, dir + u"/../share/quillet/"_s + kInfoFileName }) {
        if (QFile::exists(candidate))
            return candidate;
    }
    return {};
}

} // namespace

QString AppConfig::lookup(const std::optional<QJsonObject>& info, const QString& key, const QString& fallback)
{
    if (!info)
        return fallback;
    const QJsonValue value = info->value(key);
    return value.isString() ? value.toString() : fallback;
}

std::optional<QJsonObject> AppConfig::readInfo()
{
    const QString path = findInfoFile();
    if (path.isEmpty())
        return std::nullopt;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll());
    if (!doc.isObject())
        return std::nullopt;
    return doc.object();
}

QString AppConfig::apiBaseURL()
{
    return lookup(readInfo(), u"API_BASE_URL"_s, u"http://127.0.0.1:8000"_s);
}

QString AppConfig::siteURL()
{
    return lookup(readInfo(), u"SITE_URL"_s, u"http://127.0.0.1:3000"_s);
}

std::optional<QString> AppConfig::shortVersion()
{
    const std::optional<QJsonObject> info = readInfo();
    if (!info || !info->value(u"CFBundleShortVersionString"_s).isString())
        return std::nullopt;
    return info->value(u"CFBundleShortVersionString"_s).toString();
}

void AppConfig::setInfoFilePathForTesting(const QString& path)
{
    infoFileOverride() = path;
}
