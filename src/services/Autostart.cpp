#include "services/Autostart.h"

#include "services/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::StringLiterals;

const QString Autostart::offeredKey = u"autostart.offered"_s;

namespace {

// An Exec= argument: quoted, with the characters the desktop entry format reserves
// escaped, whenever it holds anything but plain path characters.
QString execArgument(const QString& path)
{
    static const QString plain = u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+"_s;
    if (!path.isEmpty() && std::all_of(path.begin(), path.end(), [](QChar c) { return plain.contains(c); }))
        return path;
    QString quoted;
    for (const QChar c : path) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            quoted += u'\\';
        quoted += c;
    }
    // A literal percent sign is written twice in Exec; backslashes are escaped once
    // more because the whole value is itself a string of the format.
    quoted.replace(u'%', u"%%"_s);
    quoted.replace(u'\\', u"\\\\"_s);
    return u'"' + quoted + u'"';
}

} // namespace

Autostart::Autostart(QString configHome, QString executable)
    : m_configHome(std::move(configHome))
    , m_executable(std::move(executable))
{ }

Autostart Autostart::forThisProgram()
{
    return Autostart(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation),
        QCoreApplication::applicationFilePath());
}

QString Autostart::entryPath() const
{
    return m_configHome + u"/autostart/"_s + QStringLiteral(QUILLET_APP_ID) + u".desktop"_s;
}

QByteArray Autostart::entryFor(const QString& executable)
{
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Quillet\n"
           "Comment=Hold a key, speak, let go: the words appear at the cursor\n"
           "Exec="
        + execArgument(executable).toUtf8()
        + "\n"
          "Icon=" QUILLET_APP_ID "\n"
          "Terminal=false\n"
          "NoDisplay=true\n"
          "X-GNOME-Autostart-enabled=true\n";
}

bool Autostart::isEnabled() const
{
    QFile file(entryPath());
    if (!file.open(QIODevice::ReadOnly))
        return false;
    // The desktop's own autostart settings hide an entry instead of deleting it.
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed == "Hidden=true" || trimmed == "X-GNOME-Autostart-enabled=false")
            return false;
    }
    return true;
}

bool Autostart::setEnabled(bool enabled) const
{
    const QString path = entryPath();
    if (!enabled) {
        if (!QFile::exists(path) || QFile::remove(path))
            return true;
        Log::write(Log::Symbol::Failure, u"could not remove "_s + path + u": Quillet will still start at login"_s);
        return false;
    }
    const QByteArray entry = entryFor(m_executable);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(entry) != entry.size() || !file.commit()) {
        Log::write(Log::Symbol::Failure,
            u"could not write "_s + path + u" ("_s + file.errorString() + u"): Quillet will not start at login"_s);
        return false;
    }
    return true;
}

void Autostart::enableOnFirstRun(QSettings& settings) const
{
    if (settings.value(offeredKey).toBool())
        return;
    if (setEnabled(true))
        Log::write(Log::Symbol::Success, u"Quillet will start at login (Settings… turns that off)"_s);
    settings.setValue(offeredKey, true);
    settings.sync();
}
