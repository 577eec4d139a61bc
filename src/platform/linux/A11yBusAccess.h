#pragma once

#include "platform/AccessibilityAccess.h"

// The desktop's accessibility switch: the IsEnabled property of org.a11y.Status on
// the session bus's org.a11y.Bus (/org/a11y/bus), which desktop settings panels
// ("Assistive technologies") flip and which toolkits watch to expose their text
// fields over AT-SPI. Without it, other applications show us nothing to write to.
class A11yBusAccess final : public AccessibilityAccess
{
public:
    // Gives up on a call after timeoutMs and answers false.
    explicit A11yBusAccess(int timeoutMs = 2000);

    QFuture<bool> isTrusted() override;
    QFuture<bool> enable() override;

private:
    int m_timeoutMs;
};
