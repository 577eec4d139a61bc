#include "services/Autostart.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray execLine(const QByteArray& entry)
{
    for (const QByteArray& line : entry.split('\n')) {
        if (line.startsWith("Exec="))
            return line.mid(5);
    }
    return {};
}

} // namespace

class TestAutostart : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void followsXdgConfigHome()
    {
        QTemporaryDir config;
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        const Autostart autostart = Autostart::forThisProgram();
        QCOMPARE(autostart.entryPath(), config.path() + u"/autostart/app.quillet.Quillet.desktop"_s);
        QVERIFY(autostart.setEnabled(true));
        QCOMPARE(execLine(readAll(autostart.entryPath())), QCoreApplication::applicationFilePath().toUtf8());
        qunsetenv("XDG_CONFIG_HOME");
    }

    void switchesOnAndOff()
    {
        QTemporaryDir config;
        const Autostart autostart(config.path(), u"/usr/bin/quillet"_s);
        QVERIFY(!autostart.isEnabled());
        QVERIFY(autostart.setEnabled(true));
        QVERIFY(autostart.isEnabled());
        const QByteArray entry = readAll(autostart.entryPath());
        QVERIFY(entry.startsWith("[Desktop Entry]\n"));
        QVERIFY(entry.contains("\nType=Application\n"));
        QCOMPARE(execLine(entry), QByteArray("/usr/bin/quillet"));
        QVERIFY(autostart.setEnabled(false));
        QVERIFY(!QFile::exists(autostart.entryPath()));
        QVERIFY(!autostart.isEnabled());
        // Off twice is no failure.
        QVERIFY(autostart.setEnabled(false));
    }

    void anEntryTheDesktopHidIsOff()
    {
        QTemporaryDir config;
        const Autostart autostart(config.path(), u"/usr/bin/quillet"_s);
        QVERIFY(autostart.setEnabled(true));
        QFile file(autostart.entryPath());
        QVERIFY(file.open(QIODevice::Append));
        file.write("Hidden=true\n");
        file.close();
        QVERIFY(!autostart.isEnabled());
        // Switching it on again writes a visible entry.
        QVERIFY(autostart.setEnabled(true));
        QVERIFY(autostart.isEnabled());
    }

    void anExecutableWithSpacesAndQuotesIsQuoted()
    {
        QTemporaryDir config;
        const Autostart autostart(config.path(), u"/home/me/my \"builds\"/100%/quillet"_s);
        QVERIFY(autostart.setEnabled(true));
        // Quoted, the reserved characters escaped, the percent doubled, and every
        // backslash doubled once more by the file format itself.
        QCOMPARE(execLine(readAll(autostart.entryPath())), QByteArray(R"("/home/me/my \\"builds\\"/100%%/quillet")"));
    }

    void anUnwritableFolderIsReportedAndLeavesItOff()
    {
        QTemporaryDir config;
        // A file where the autostart folder should be: nothing can be written into it,
        // even by root.
        QFile blocker(config.path() + u"/autostart"_s);
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const Autostart autostart(config.path(), u"/usr/bin/quillet"_s);
        QVERIFY(!autostart.setEnabled(true));
        QVERIFY(!autostart.isEnabled());
    }

    void theFirstStartTurnsItOnOnceOnly()
    {
        QTemporaryDir config;
        QSettings settings(config.filePath(u"Quillet.conf"_s), QSettings::IniFormat);
        const Autostart autostart(config.path(), u"/usr/bin/quillet"_s);
        autostart.enableOnFirstRun(settings);
        QVERIFY(autostart.isEnabled());
        QVERIFY(settings.value(Autostart::offeredKey).toBool());
        // The user turned it off in the settings window: later starts leave it off.
        QVERIFY(autostart.setEnabled(false));
        autostart.enableOnFirstRun(settings);
        QVERIFY(!autostart.isEnabled());
    }
};

QTEST_GUILESS_MAIN(TestAutostart)
#include "tst_autostart.moc"
