#pragma once

#include "services/Tone.h"
#include "ui/HUDMode.h"

#include <QString>

#include <optional>

class HUDState;

// What a dictation session asks of its capsule. HUDWindowController is the real
// one; tests record the calls.
class HUDPresenter
{
public:
    virtual ~HUDPresenter() = default;

    // The model the views show; the session writes partialText and some modes directly.
    virtual HUDState& hudState() = 0;
    // Sets the mode, clears partialText, puts the capsule up (without taking focus) and fades it in.
    virtual void show(const HUDMode& mode) = 0;
    // Shows the error and fades the capsule out 3.0 s later.
    virtual void showError(const QString& message) = 0;
    // Shows success (with the tone of a rewrite) and fades the capsule out 1.2 s later.
    // The text is not shown.
    virtual void showSuccess(const QString& text, std::optional<Tone> tone) = 0;
    // Fades the capsule out now (a dictation given up, a tone picker closed).
    virtual void dismiss() = 0;
};
