#include "ui/OnboardingState.h"

#include <QSettings>

using namespace Qt::StringLiterals;

const QString OnboardingState::completeKey = u"onboarding.complete"_s;

OnboardingState::OnboardingState(QObject* parent)
    : QObject(parent)
{ }

OnboardingState& OnboardingState::shared()
{
    static OnboardingState state;
    return state;
}

bool OnboardingState::isComplete()
{
    return QSettings(u"Quillet"_s, u"Quillet"_s).value(completeKey, false).toBool();
}

void OnboardingState::markComplete()
{
    QSettings settings(u"Quillet"_s, u"Quillet"_s);
    settings.setValue(completeKey, true);
    // Written through now: the window that set it may be the last thing the user sees.
    settings.sync();
}

void OnboardingState::setHotkeyHeld(bool held)
{
    if (held)
        setHotkeySeen(true);
    if (held == m_hotkeyHeld)
        return;
    m_hotkeyHeld = held;
    Q_EMIT hotkeyHeldChanged();
}

void OnboardingState::setHotkeySeen(bool seen)
{
    if (seen == m_hotkeySeen)
        return;
    m_hotkeySeen = seen;
    Q_EMIT hotkeySeenChanged();
}
