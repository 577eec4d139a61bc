#pragma once

#include <QObject>
#include <QString>
#include <QStringView>

#include <array>
#include <optional>

// The tones a dictation can be rewritten in. The raw value is what the backend is
// sent and the tone's identity; the label is what the tone picker shows.
namespace ToneChoice {
Q_NAMESPACE

enum class Tone { professional, friendly, funny, firm, supportive, concise };
Q_ENUM_NS(Tone)

} // namespace ToneChoice

using ToneChoice::Tone;

namespace Tones {

// Every tone, in the order the picker lists them.
inline constexpr std::array<Tone, 6> allCases { Tone::professional, Tone::friendly, Tone::funny, Tone::firm,
    Tone::supportive, Tone::concise };

// "professional", "friendly", "funny", "firm", "supportive", "concise".
QString rawValue(Tone tone);
// The tone with exactly this raw value; nothing for any other text ("Professional" included).
std::optional<Tone> fromRawValue(QStringView raw);
// "Professional", "Friendly", ...
QString label(Tone tone);

} // namespace Tones
