#include "DatabaseUrl.h"

#include <QRegularExpression>
#include <QStringList>
#include <QUrl>
#include <QUrlQuery>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr auto passwordRefused
    = "a database password on the command line is visible to every user; use --database-password-file or "
      "PGPASSWORD";

// The keywords that have their own QSqlDatabase setter; everything else goes through the
// driver's connect options. Qt separates those with ';', so a value may not hold one.
bool applyKeyword(PostgresConnection& out, const QString& key, const QString& value, QString* error)
{
    if (key == u"password"_s) {
        *error = QString::fromLatin1(passwordRefused);
        return false;
    }
    // Qt's driver joins the options into one libpq string, where ';' separates them for
    // Qt and any white space separates keywords for libpq: either would let a value
    // smuggle in a setting of its own.
    static const QRegularExpression separator(u"[;\\s\\x00-\\x1f\\x7f]"_s);
    if (value.contains(separator)) {
        *error = u"the database setting %1 may not contain ';', spaces or control characters"_s.arg(key);
        return false;
    }
    if (key == u"host"_s) {
        out.host = value;
    } else if (key == u"port"_s) {
        bool ok = false;
        const int port = value.toInt(&ok);
        if (!ok || port < 1 || port > 65535) {
            *error = u"the database port must be a number from 1 to 65535, not \"%1\""_s.arg(value);
            return false;
        }
        out.port = port;
    } else if (key == u"dbname"_s) {
        out.database = value;
    } else if (key == u"user"_s) {
        out.user = value;
    } else {
        static const QRegularExpression keyword(QRegularExpression::anchoredPattern(u"[a-z_]+"_s));
        if (!keyword.match(key).hasMatch()) {
            *error = u"\"%1\" is not a database setting"_s.arg(key);
            return false;
        }
        if (!out.options.isEmpty())
            out.options += u';';
        out.options += key + u'=' + value;
    }
    return true;
}

std::optional<PostgresConnection> parseUri(const QString& text, QString* error)
{
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid()) {
        *error = u"the database address is not a valid URL: %1"_s.arg(url.errorString());
        return std::nullopt;
    }
    if (!url.password().isEmpty()) {
        *error = QString::fromLatin1(passwordRefused);
        return std::nullopt;
    }
    PostgresConnection out;
    out.host = url.host();
    out.port = url.port(-1);
    if (out.port == 0) {
        // QUrl takes 0; libpq would quietly use its default port instead.
        *error = u"the database port must be a number from 1 to 65535, not \"0\""_s;
        return std::nullopt;
    }
    out.user = url.userName(QUrl::FullyDecoded);
    out.database = url.path(QUrl::FullyDecoded).mid(1);
    if (out.database.contains(u'/')) {
        *error = u"the database address has more than a database name in its path"_s;
        return std::nullopt;
    }
    const QUrlQuery query(url);
    for (const auto& [key, value] : query.queryItems(QUrl::FullyDecoded)) {
        if (!applyKeyword(out, key, value, error))
            return std::nullopt;
    }
    return out;
}

std::optional<PostgresConnection> parseKeywords(const QString& text, QString* error)
{
    PostgresConnection out;
    // Quoted values are not supported: none of the settings a replica needs has spaces.
    static const QRegularExpression space(u"\\s+"_s);
    for (const QString& item : text.split(space, Qt::SkipEmptyParts)) {
        const qsizetype equals = item.indexOf(u'=');
        if (equals <= 0) {
            *error = u"\"%1\" is not a key=value database setting"_s.arg(item);
            return std::nullopt;
        }
        if (!applyKeyword(out, item.first(equals), item.mid(equals + 1), error))
            return std::nullopt;
    }
    return out;
}

} // namespace

std::optional<PostgresConnection> parsePostgresUrl(const QString& text, QString* error)
{
    const QString trimmed = text.trimmed();
    std::optional<PostgresConnection> out;
    if (trimmed.startsWith(u"postgresql://"_s) || trimmed.startsWith(u"postgres://"_s))
        out = parseUri(trimmed, error);
    else if (trimmed.contains(u'='))
        out = parseKeywords(trimmed, error);
    else
        *error = u"--database needs postgresql://user@host:port/dbname or a libpq setting string such as "
                 "\"host=127.0.0.1 dbname=quillet\""_s;
    if (out && out->database.isEmpty()) {
        *error = u"the database address names no database"_s;
        return std::nullopt;
    }
    return out;
}

QString PostgresConnection::display() const
{
    QString text = u"postgresql://"_s;
    if (!user.isEmpty())
        text += user + u'@';
    text += host.startsWith(u'/') ? QString() : host;
    if (port > 0)
        text += u':' + QString::number(port);
    text += u'/' + database;
    if (host.startsWith(u'/'))
        text += u"?host="_s + host;
    return text;
}
