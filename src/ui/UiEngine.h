#pragma once

class QQmlEngine;

// The one QML engine of the program. Every window (the capsule, settings, the
// first-run window) makes its views on it, so the module's types are registered
// and its files compiled once. Needs the application object; goes with it.
namespace UiEngine {

QQmlEngine& shared();

} // namespace UiEngine
