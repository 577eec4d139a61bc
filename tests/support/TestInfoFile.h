#pragma once

#include "services/AppConfig.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryFile>

// Writes an information file for the duration of a test and points the
// configuration at it; restores the normal lookup afterwards.
class TestInfoFile
{
public:
    explicit TestInfoFile(const QJsonObject& info)
    {
        if (!m_file.open())
            qFatal("cannot create a test information file");
        m_file.write(QJsonDocument(info).toJson());
        m_file.flush();
        AppConfig::setInfoFilePathForTesting(m_file.fileName());
    }
    explicit TestInfoFile(const QByteArray& raw)
    {
        if (!m_file.open())
            qFatal("cannot create a test information file");
        m_file.write(raw);
        m_file.flush();
        AppConfig::setInfoFilePathForTesting(m_file.fileName());
    }
    ~TestInfoFile() { AppConfig::setInfoFilePathForTesting({}); }
    TestInfoFile(const TestInfoFile&) = delete;
    TestInfoFile& operator=(const TestInfoFile&) = delete;

private:
    QTemporaryFile m_file;
};
