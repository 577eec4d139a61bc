#include "services/Tone.h"

namespace {

struct ToneInfo {
    QStringView raw;
    QStringView label;
};

constexpr std::array<ToneInfo, 6> kTable { {
    { u"professional", u"Professional" },
    { u"friendly", u"Friendly" },
    { u"funny", u"Funny" },
    { u"firm", u"Firm" },
    { u"supportive", u"Supportive" },
    { u"concise", u"Concise" },
} };

} // namespace

QString Tones::rawValue(Tone tone)
{
    return kTable[static_cast<size_t>(tone)].raw.toString();
}

std::optional<Tone> Tones::fromRawValue(QStringView raw)
{
    for (Tone tone : allCases) {
        if (kTable[static_cast<size_t>(tone)].raw == raw)
            return tone;
    }
    return std::nullopt;
}

QString Tones::label(Tone tone)
{
    return kTable[static_cast<size_t>(tone)].label.toString();
}
