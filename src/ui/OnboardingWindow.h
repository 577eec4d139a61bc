#pragma once

#include "ui/FormWindow.h"
#include "ui/OnboardingModel.h"

#include <functional>

// The first-run window: OnboardingView, 520 × 560, titled "Welcome to Quillet".
class OnboardingWindow : public FormWindow
{
    Q_OBJECT

public:
    static constexpr QSize windowSize { 520, 560 };

    // `onComplete` runs when the user finishes the last step; closing the window is
    // the caller's business (closed() follows).
    explicit OnboardingWindow(std::function<void()> onComplete,
        OnboardingServices services = OnboardingServices::system(), QObject* parent = nullptr);

    OnboardingModel& model() { return *m_model; }

private:
    // A child, so it goes after the view (the base's member) that binds to it.
    OnboardingModel* m_model;
};
