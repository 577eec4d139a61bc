#include "ui/OnboardingModel.h"

#include "services/AppConfig.h"
#include "ui/WhenReady.h"

#include <QDesktopServices>

using namespace Qt::StringLiterals;

const QString OnboardingModel::signInPath = u"/signin?source=mac-app"_s;

OnboardingServices OnboardingServices::system()
{
    OnboardingServices services;
    services.store = &SettingsStore::shared();
    services.state = &OnboardingState::shared();
    services.microphones = makeSystemMicrophones();
    services.accessibility = makeSystemAccessibilityAccess();
    services.openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };
    return services;
}

OnboardingModel::OnboardingModel(OnboardingServices services, std::function<void()> onComplete, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_onComplete(std::move(onComplete))
    , m_hotkeys(*m_services.store)
{
    m_accessibilityTimer.setInterval(m_services.accessibilityPollInterval);
    connect(&m_accessibilityTimer, &QTimer::timeout, this, &OnboardingModel::pollAccessibility);
    // The step's first look is the state when the window is made; the answer comes
    // back within the bus timeout.
    whenReady(m_services.accessibility->isTrusted(), this, [this](bool trusted) { setAccessibilityGranted(trusted); });
}

void OnboardingModel::checkMicrophone()
{
    whenReady(m_services.microphones->permission(), this, [this](bool granted) { setMicrophoneGranted(granted); });
}

void OnboardingModel::requestMicrophone()
{
    // A refusal leaves the step as it was: the user may try again or skip.
    whenReady(
        m_services.microphones->requestPermission(), this, [this](bool granted) { setMicrophoneGranted(granted); });
}

void OnboardingModel::watchAccessibility()
{
    if (m_accessibilityTimer.isActive())
        return;
    // Not stopped when the user moves on without granting: a grant made later, in
    // the desktop's settings, still shows up here.
    m_accessibilityTimer.start();
    Q_EMIT watchingAccessibilityChanged();
}

void OnboardingModel::pollAccessibility()
{
    // A bus that is slow to answer gets one question at a time.
    if (m_accessibilityQueryPending)
        return;
    m_accessibilityQueryPending = true;
    whenReady(m_services.accessibility->isTrusted(), this, [this](bool trusted) {
        m_accessibilityQueryPending = false;
        setAccessibilityGranted(trusted);
        if (trusted && m_accessibilityTimer.isActive()) {
            m_accessibilityTimer.stop();
            Q_EMIT watchingAccessibilityChanged();
        }
    });
}

void OnboardingModel::openAccessibilitySettings()
{
    // There is no one settings application to send the user to on every Linux
    // desktop, so the button does what their accessibility panels do: it turns the
    // desktop's accessibility switch on. The user pressed it; that is the consent.
    // The step does not move on by itself: the polling notices the change.
    m_services.accessibility->enable();
}

void OnboardingModel::openSignIn()
{
    const QUrl url(AppConfig::siteURL() + signInPath, QUrl::StrictMode);
    if (!url.isValid())
        qFatal("The sign-in address is not a valid URL: %s", qPrintable(url.toString()));
    m_services.openUrl(url);
}

void OnboardingModel::finish()
{
    OnboardingState::markComplete();
    if (m_onComplete)
        m_onComplete();
}

void OnboardingModel::setMicrophoneGranted(bool granted)
{
    if (granted == m_microphoneGranted)
        return;
    m_microphoneGranted = granted;
    Q_EMIT microphoneGrantedChanged();
}

void OnboardingModel::setAccessibilityGranted(bool granted)
{
    if (granted == m_accessibilityGranted)
        return;
    m_accessibilityGranted = granted;
    Q_EMIT accessibilityGrantedChanged();
}
