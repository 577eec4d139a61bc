#pragma once

#include "platform/Microphones.h"
#include "services/SettingsStore.h"
#include "ui/FormWindow.h"
#include "ui/SettingsViewModel.h"

#include <memory>

// The settings window: SettingsView on the settings store, 460 × 380, titled
// "Quillet Settings". The device list is read again every time it comes on screen.
class SettingsWindow : public FormWindow
{
    Q_OBJECT

public:
    static constexpr QSize windowSize { 460, 380 };

    // On the shared settings store and the sound server's microphones.
    explicit SettingsWindow(QObject* parent = nullptr);
    SettingsWindow(SettingsStore& store, std::shared_ptr<Microphones> microphones, QObject* parent = nullptr);

    SettingsViewModel& model() { return *m_model; }

private:
    // A child, so it goes after the view (the base's member) that binds to it.
    SettingsViewModel* m_model;
};
