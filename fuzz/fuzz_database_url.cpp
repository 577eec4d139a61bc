// Parses --database values. Whatever is accepted must name a database, keep its password
// off the command line, hand Qt's driver only "key=value" options it cannot misread, and
// show nothing in the log that the input did not say.
#include "DatabaseUrl.h"

#include <QRegularExpression>

#include <cstddef>
#include <cstdint>

using namespace Qt::Literals::StringLiterals;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    QString error;
    const std::optional<PostgresConnection> connection = parsePostgresUrl(text, &error);
    if (!connection) {
        if (error.isEmpty())
            __builtin_trap(); // every refusal says why
        return 0;
    }
    if (connection->database.isEmpty() || !connection->password.isEmpty())
        __builtin_trap();
    if (connection->port != -1 && (connection->port < 1 || connection->port > 65535))
        __builtin_trap();
    static const QRegularExpression option(QRegularExpression::anchoredPattern(u"[a-z_]+=[^;\\s\\x00-\\x1f]*"_s));
    if (!connection->options.isEmpty()) {
        for (const QString& item : connection->options.split(u';')) {
            if (!option.match(item).hasMatch() || item.startsWith(u"password="_s))
                __builtin_trap();
        }
    }
    // The password refusal is not fooled by case or by where the keyword stands.
    if (text.contains(u" password="_s) || text.trimmed().startsWith(u"password="_s))
        __builtin_trap();
    return 0;
}
