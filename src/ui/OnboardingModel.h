#pragma once

#include "platform/AccessibilityAccess.h"
#include "platform/Microphones.h"
#include "services/SettingsStore.h"
#include "ui/HotkeySelection.h"
#include "ui/OnboardingState.h"

#include <QObject>
#include <QTimer>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include <chrono>
#include <functional>
#include <memory>

// What the first-run window asks of the system. Tests put their own pieces in.
struct OnboardingServices {
    SettingsStore* store = nullptr;
    OnboardingState* state = nullptr;
    std::shared_ptr<Microphones> microphones;
    std::shared_ptr<AccessibilityAccess> accessibility;
    // Opens an address in the user's browser.
    std::function<void(const QUrl&)> openUrl;
    // How often the accessibility step asks whether access was granted.
    std::chrono::milliseconds accessibilityPollInterval { 1000 };

    // The shared store and state, the sound server, the session bus and the desktop's URL handler.
    static OnboardingServices system();
};

// The logic behind the six steps of the first-run window; the view keeps only the
// step number and the practice text.
class OnboardingModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Made by OnboardingWindow")
    Q_PROPERTY(HotkeySelection* hotkeys READ hotkeys CONSTANT)
    Q_PROPERTY(OnboardingState* state READ state CONSTANT)
    Q_PROPERTY(bool microphoneGranted READ microphoneGranted NOTIFY microphoneGrantedChanged)
    Q_PROPERTY(bool accessibilityGranted READ accessibilityGranted NOTIFY accessibilityGrantedChanged)
    // Whether the accessibility step is still asking, once per interval.
    Q_PROPERTY(bool watchingAccessibility READ watchingAccessibility NOTIFY watchingAccessibilityChanged)

public:
    static const QString signInPath; // "/signin?source=mac-app"

    // `onComplete` runs when the user finishes the last step.
    OnboardingModel(OnboardingServices services, std::function<void()> onComplete, QObject* parent = nullptr);

    HotkeySelection* hotkeys() { return &m_hotkeys; }
    OnboardingState* state() const { return m_services.state; }
    bool microphoneGranted() const { return m_microphoneGranted; }
    bool accessibilityGranted() const { return m_accessibilityGranted; }
    bool watchingAccessibility() const { return m_accessibilityTimer.isActive(); }

    // The microphone step came on screen: asks whether the microphone can be used.
    Q_INVOKABLE void checkMicrophone();
    // "Allow microphone": asks for it; the answer sets microphoneGranted.
    Q_INVOKABLE void requestMicrophone();
    // The accessibility step came on screen: asks once per interval until access is
    // granted, whichever step is showing by then. A second call changes nothing.
    Q_INVOKABLE void watchAccessibility();
    // "Open System Settings": switches accessibility on, as the desktop's settings would.
    Q_INVOKABLE void openAccessibilitySettings();
    // "Sign in or create account": the site's sign-in page in the browser.
    Q_INVOKABLE void openSignIn();
    // "Skip for now" on the last step: records completion, then calls onComplete.
    Q_INVOKABLE void finish();

Q_SIGNALS:
    void microphoneGrantedChanged();
    void accessibilityGrantedChanged();
    void watchingAccessibilityChanged();

private:
    void setMicrophoneGranted(bool granted);
    void setAccessibilityGranted(bool granted);
    void pollAccessibility();

    OnboardingServices m_services;
    std::function<void()> m_onComplete;
    HotkeySelection m_hotkeys;
    bool m_microphoneGranted = false;
    bool m_accessibilityGranted = false;
    bool m_accessibilityQueryPending = false;
    QTimer m_accessibilityTimer;
};
