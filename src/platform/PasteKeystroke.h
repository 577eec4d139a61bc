#pragma once

#include <memory>

// The synthetic key press that makes the focused application paste its clipboard.
class PasteKeystroke
{
public:
    virtual ~PasteKeystroke() = default;

    // Presses and releases the focused application's paste keys, with no other
    // modifier held even while the user still holds one.
    virtual void post() = 0;
};

// The desktop's synthetic paste keystroke.
std::unique_ptr<PasteKeystroke> makeSystemPasteKeystroke();
