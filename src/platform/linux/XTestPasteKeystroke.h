#pragma once

#include "platform/PasteKeystroke.h"

#include <QString>

// Control+V (Control+Shift+V in a terminal emulator, where Control+V is a literal
// character) sent through the XTest extension to whichever window has the focus.
// Modifier keys the user still holds are released around the chord and pressed
// again afterwards, so the application sees only the chord's own modifiers.
class XTestPasteKeystroke final : public PasteKeystroke
{
public:
    QCoro::Task<> post() override;

    // Whether a window of this WM_CLASS is a terminal emulator, which pastes with Control+Shift+V.
    static bool isTerminal(const QString& instanceName, const QString& className);

private:
    // The whole chord, delivered to the X server before it returns.
    void sendChord();
};
