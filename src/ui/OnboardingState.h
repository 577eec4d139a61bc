#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// What the first-run window shares with the rest of the program: whether onboarding
// is complete (the "onboarding.complete" setting), and whether the user's hotkey has
// been seen going down, which the application reports from its key monitor so the
// hotkey step can show that the key works.
class OnboardingState : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Use OnboardingState::shared()")
    // True while the hotkey is held down.
    Q_PROPERTY(bool hotkeyHeld READ hotkeyHeld NOTIFY hotkeyHeldChanged)
    // True once the hotkey has gone down, until cleared (the chosen key changed).
    Q_PROPERTY(bool hotkeySeen READ hotkeySeen WRITE setHotkeySeen NOTIFY hotkeySeenChanged)

public:
    static const QString completeKey; // "onboarding.complete"

    explicit OnboardingState(QObject* parent = nullptr);

    // Made on first use; lives as long as the program.
    static OnboardingState& shared();

    // Whether onboarding was finished or its window closed once (absent is false).
    static bool isComplete();
    // Records that it was, in the user's settings ("Quillet"/"Quillet").
    static void markComplete();

    bool hotkeyHeld() const { return m_hotkeyHeld; }
    // The key monitor saw the hotkey go down (true) or up (false).
    void setHotkeyHeld(bool held);
    bool hotkeySeen() const { return m_hotkeySeen; }
    void setHotkeySeen(bool seen);

Q_SIGNALS:
    void hotkeyHeldChanged();
    void hotkeySeenChanged();

private:
    bool m_hotkeyHeld = false;
    bool m_hotkeySeen = false;
};
