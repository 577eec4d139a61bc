#include "ui/SettingsWindow.h"

using namespace Qt::StringLiterals;

SettingsWindow::SettingsWindow(QObject* parent)
    : SettingsWindow(SettingsStore::shared(), makeSystemMicrophones(), parent)
{ }

SettingsWindow::SettingsWindow(SettingsStore& store, std::shared_ptr<Microphones> microphones, QObject* parent)
    : FormWindow(u"Quillet Settings"_s, windowSize, parent)
    , m_model(new SettingsViewModel(store, std::move(microphones), this))
{
    connect(this, &FormWindow::shown, m_model, &SettingsViewModel::refresh);
    load(u"SettingsView"_s, { { u"settings"_s, QVariant::fromValue(m_model) } });
}
