#include "platform/KeyboardState.h"

#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

// X keycodes of a PC keyboard under the evdev rules; any numbers would do.
constexpr unsigned kLeftAlt = 64;
constexpr unsigned kRightAlt = 108;
constexpr unsigned kRightSuper = 134;
constexpr unsigned kCaps = 66;
constexpr unsigned kShift = 50;
constexpr unsigned kWakeUp = 151;
constexpr unsigned kA = 38;

QString describe(const std::optional<KeyEvent>& event)
{
    if (!event)
        return u"none"_s;
    const char* type = event->type == KeyEventType::keyDown ? "down"
        : event->type == KeyEventType::keyUp                ? "up"
        : event->type == KeyEventType::flagsChanged         ? "flagsChanged"
                                                            : "other";
    return u"%1 %2 0x%3"_s.arg(QLatin1StringView(type)).arg(event->keyCode).arg(event->flags, 0, 16);
}

} // namespace

class TestKeyboardState : public QObject
{
    Q_OBJECT

    KeyboardState m_state;

    QString press(unsigned key) { return describe(m_state.handle(key, true)); }
    QString release(unsigned key) { return describe(m_state.handle(key, false)); }

private Q_SLOTS:
    void init()
    {
        m_state = KeyboardState();
        m_state.setRole(kLeftAlt, PhysicalKey::leftAlt);
        m_state.setRole(kRightAlt, PhysicalKey::rightAlt);
        m_state.setRole(kRightSuper, PhysicalKey::rightSuper);
        m_state.setRole(kCaps, PhysicalKey::capsLock);
        m_state.setRole(kShift, PhysicalKey::leftShift);
        m_state.setRole(kWakeUp, PhysicalKey::fn);
    }

    void modifiersCarryTheWholeFlagWord()
    {
        QCOMPARE(press(kRightAlt), u"flagsChanged 61 0x80000"_s);
        QCOMPARE(press(kRightSuper), u"flagsChanged 54 0x180000"_s);
        QCOMPARE(press(kShift), u"flagsChanged 56 0x1a0000"_s);
        QCOMPARE(press(kWakeUp), u"flagsChanged 63 0x9a0000"_s);
        QCOMPARE(release(kRightAlt), u"flagsChanged 61 0x920000"_s);
        QCOMPARE(release(kShift), u"flagsChanged 56 0x900000"_s);
        QCOMPARE(release(kRightSuper), u"flagsChanged 54 0x800000"_s);
        QCOMPARE(release(kWakeUp), u"flagsChanged 63 0x0"_s);
    }
    void bothAltKeysSetTheSameFlagUntilBothAreUp()
    {
        QCOMPARE(press(kRightAlt), u"flagsChanged 61 0x80000"_s);
        QCOMPARE(press(kLeftAlt), u"flagsChanged 58 0x80000"_s);
        QCOMPARE(release(kRightAlt), u"flagsChanged 61 0x80000"_s);
        QCOMPARE(release(kLeftAlt), u"flagsChanged 58 0x0"_s);
    }
    void repeatedPressesOfAHeldKeyMakeNoEvents()
    {
        QCOMPARE(press(kRightAlt), u"flagsChanged 61 0x80000"_s);
        QCOMPARE(press(kRightAlt), u"none"_s);
        QCOMPARE(press(kRightAlt), u"none"_s);
        QCOMPARE(press(kA), u"down 1038 0x80000"_s);
        QCOMPARE(press(kA), u"none"_s);
        QCOMPARE(release(kA), u"up 1038 0x80000"_s);
        QCOMPARE(release(kRightAlt), u"flagsChanged 61 0x0"_s);
        // Up means up: the next press is a press again.
        QCOMPARE(press(kRightAlt), u"flagsChanged 61 0x80000"_s);
    }
    void capsLockTogglesOnItsPresses()
    {
        QCOMPARE(press(kCaps), u"flagsChanged 57 0x10000"_s);
        QCOMPARE(release(kCaps), u"none"_s);
        QCOMPARE(press(kA), u"down 1038 0x10000"_s);
        QCOMPARE(release(kA), u"up 1038 0x10000"_s);
        QCOMPARE(press(kCaps), u"flagsChanged 57 0x0"_s);
        QCOMPARE(press(kCaps), u"none"_s); // a repeat does not toggle
        QCOMPARE(release(kCaps), u"none"_s);
        QVERIFY(!m_state.capsLocked());
    }
    void theStateFoundAtStartCounts()
    {
        m_state.setCapsLocked(true);
        m_state.setHeld(kRightAlt, true);
        QCOMPARE(m_state.flags(), quint64(0x90000));
        QCOMPARE(press(kRightAlt), u"none"_s);
        QCOMPARE(press(kCaps), u"flagsChanged 57 0x80000"_s);
        QCOMPARE(release(kRightAlt), u"flagsChanged 61 0x0"_s);
        // A release of a key nobody saw go down still reports the current word.
        QCOMPARE(release(kRightSuper), u"flagsChanged 54 0x0"_s);
    }
    void rolesCanChangeWhileKeysAreHeld()
    {
        QCOMPARE(press(kA), u"down 1038 0x0"_s);
        m_state.clearRoles();
        QCOMPARE(m_state.role(kRightAlt), PhysicalKey::other);
        QCOMPARE(press(kRightAlt), u"down 1108 0x0"_s);
        m_state.setRole(kA, PhysicalKey::fn);
        // The held key now counts as fn.
        QCOMPARE(m_state.flags(), quint64(0x800000));
    }
    void keyNumbersOutOfRangeAreIgnored()
    {
        QCOMPARE(press(256), u"none"_s);
        QCOMPARE(release(100000), u"none"_s);
        m_state.setRole(300, PhysicalKey::rightAlt);
        QCOMPARE(m_state.role(300), PhysicalKey::other);
        QCOMPARE(m_state.flags(), quint64(0));
    }
};

QTEST_GUILESS_MAIN(TestKeyboardState)
#include "tst_keyboardstate.moc"
