#pragma once

#include <functional>

class QObject;

// xdg-desktop-portal 1.20 and later knows an unsandboxed program only by the app id it
// registers (org.freedesktop.host.portal.Registry), and only if that comes before the
// program's first other portal call. Every portal client of ours (GlobalShortcuts,
// RemoteDesktop) starts through here: the first one sends the registration, and each
// goes on once the portal has answered it, with an error or not (older portals have no
// registry). `then` runs on the event loop, unless context is gone by then.
void afterPortalRegistration(QObject* context, std::function<void()> then);
