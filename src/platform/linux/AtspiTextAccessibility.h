#pragma once

#include "platform/TextAccessibility.h"

#include <QString>

#include <memory>
#include <optional>

// The accessibility interface of the free desktops (AT-SPI, through libatspi).
// "Trusted" means the accessibility bus answers and is enabled, as it is when
// the user has assistive technologies turned on; applications expose nothing
// otherwise. The focused element comes from the focus events applications send,
// checked against the X11 focus, or else from a search of the focused
// application's own windows; never from a walk of every application.
class AtspiTextAccessibility final : public TextAccessibility
{
public:
    AtspiTextAccessibility();
    ~AtspiTextAccessibility() override;
    AtspiTextAccessibility(const AtspiTextAccessibility&) = delete;
    AtspiTextAccessibility& operator=(const AtspiTextAccessibility&) = delete;

    bool isTrusted() override;
    std::unique_ptr<AccessibleElement> focusedElement() override;
    // The name the application of the last focused element gives itself on the
    // accessibility bus ("gnome-terminal-server", "gtk-fields"); absent when unknown.
    std::optional<QString> focusedApplicationName();

    struct Connection;

private:
    std::unique_ptr<Connection> m_connection;
};
