#pragma once

#include <QString>

#include <optional>

// Where the accounts and refresh tokens live when they are not in the local SQLite file:
// a PostgreSQL server shared by every replica.
struct PostgresConnection {
    QString host; // a name, an address, or a directory holding the server's unix socket
    int port = -1; // -1: libpq's default (5432, or PGPORT)
    QString database;
    QString user;
    QString password; // never from the URL itself, see parsePostgresUrl()
    QString options; // further libpq keywords, "key=value;key=value" as Qt's driver takes them

    // The address without the password, for the log.
    QString display() const;
};

// Reads `postgresql://user@host:port/dbname?key=value` (also `postgres://`) or a libpq
// keyword string such as `host=127.0.0.1 port=5432 dbname=quillet user=quillet`.
// A password inside either is refused: a command line is visible to every user through
// ps, so passwords come from a file or from libpq's own PGPASSWORD and PGPASSFILE.
std::optional<PostgresConnection> parsePostgresUrl(const QString& text, QString* error);
