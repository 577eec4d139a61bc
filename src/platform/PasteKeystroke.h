#pragma once

#include <QCoroTask>

#include <memory>

// The synthetic key press that makes the focused application paste its clipboard.
class PasteKeystroke
{
public:
    virtual ~PasteKeystroke() = default;

    // Presses and releases the focused application's paste keys, with no other
    // modifier held even while the user still holds one. Finished once the keys are
    // on their way to the application.
    virtual QCoro::Task<> post() = 0;
    // Whether a keystroke can be sent at all on this desktop.
    virtual bool canPost() const { return true; }
};

// The desktop's synthetic paste keystroke.
std::unique_ptr<PasteKeystroke> makeSystemPasteKeystroke();
