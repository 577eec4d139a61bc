#pragma once

#include "services/Tone.h"

#include <QMetaType>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

// What the capsule shows. Four cases carry a value (rewriting: a tone; tonePicker:
// the handler that receives the chosen tone; success: an optional tone; error: the
// message), three carry none.
class HUDMode
{
    Q_GADGET
public:
    enum class Kind { dictating, tone, cleaning, tonePicker, rewriting, success, error };
    Q_ENUM(Kind)

    using ToneHandler = std::function<void(Tone)>;
    using DismissHandler = std::function<void()>;

    static HUDMode dictating() { return HUDMode(Kind::dictating); }
    static HUDMode tone() { return HUDMode(Kind::tone); }
    static HUDMode cleaning() { return HUDMode(Kind::cleaning); }
    // onDismiss: the picker's close control was used; without one the picker has none.
    static HUDMode tonePicker(ToneHandler onSelect, DismissHandler onDismiss = {});
    static HUDMode rewriting(Tone tone);
    static HUDMode success(std::optional<Tone> tone = std::nullopt);
    static HUDMode error(QString message);

    Kind kind() const { return m_kind; }
    // The tone of rewriting, or of success when there was a rewrite; nothing otherwise.
    std::optional<Tone> associatedTone() const { return m_tone; }
    // The error's message; empty for every other case.
    const QString& message() const { return m_message; }
    // The tone picker's selection handler; empty for every other case.
    const ToneHandler& toneHandler() const { return m_onSelect; }
    // The tone picker's close handler; empty for every other case.
    const DismissHandler& dismissHandler() const { return m_onDismiss; }

    // Not structural: a tonePicker equals nothing, not even itself, since its handler
    // cannot be compared; so assigning one always counts as a change.
    friend bool operator==(const HUDMode& a, const HUDMode& b);

private:
    explicit HUDMode(Kind kind)
        : m_kind(kind)
    { }

    Kind m_kind;
    std::optional<Tone> m_tone;
    QString m_message;
    ToneHandler m_onSelect;
    DismissHandler m_onDismiss;
};

Q_DECLARE_METATYPE(HUDMode)
