#include "ui/OnboardingWindow.h"

using namespace Qt::StringLiterals;

OnboardingWindow::OnboardingWindow(std::function<void()> onComplete, OnboardingServices services, QObject* parent)
    : FormWindow(u"Welcome to Quillet"_s, windowSize, parent)
    , m_model(new OnboardingModel(std::move(services), std::move(onComplete), this))
{
    load(u"OnboardingView"_s, { { u"onboarding"_s, QVariant::fromValue(m_model) } });
}
