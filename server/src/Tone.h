#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

#include <array>
#include <optional>

// The six rewrite tones. Their lower-case names are what the client sends.
enum class Tone { Professional, Friendly, Funny, Firm, Supportive, Concise };

inline constexpr std::array<Tone, 6> allTones { Tone::Professional, Tone::Friendly, Tone::Funny, Tone::Firm,
    Tone::Supportive, Tone::Concise };

// Exact, case-sensitive match: "Professional" is not a tone.
std::optional<Tone> toneFromName(QStringView name);
QString toneName(Tone tone);
QStringList toneNames();
