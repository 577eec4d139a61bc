#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// Where the backend lives. Both addresses come from the information file written
// at build time (quillet-info.json beside the executable, or share/quillet/ next to
// its bin/), read again on every access so a value is never stale. Nothing else
// (environment, command line, user settings) is consulted.
namespace AppConfig {

// The API server, e.g. "http://127.0.0.1:8000"; callers append paths.
QString apiBaseURL();
// The web site, e.g. "http://127.0.0.1:3000"; callers append paths.
QString siteURL();
// The version the build wrote into the information file, if any.
std::optional<QString> shortVersion();

// The value under `key` when it is a JSON string (kept exactly, blanks and all),
// otherwise `fallback`. A missing information file is an absent `info`.
QString lookup(const std::optional<QJsonObject>& info, const QString& key, const QString& fallback);

// Reads and parses the information file; nothing when there is none or it is not a JSON object.
std::optional<QJsonObject> readInfo();

// Points readInfo() at another file (tests); an empty path restores the search beside the executable.
void setInfoFilePathForTesting(const QString& path);

} // namespace AppConfig
