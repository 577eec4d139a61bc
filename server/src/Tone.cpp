#include "Tone.h"

using namespace Qt::Literals::StringLiterals;

QString toneName(Tone tone)
{
    switch (tone) {
    case Tone::Professional:
        return u"professional"_s;
    case Tone::Friendly:
        return u"friendly"_s;
    case Tone::Funny:
        return u"funny"_s;
    case Tone::Firm:
        return u"firm"_s;
    case Tone::Supportive:
        return u"supportive"_s;
    case Tone::Concise:
        return u"concise"_s;
    }
    return {};
}

std::optional<Tone> toneFromName(QStringView name)
{
    for (Tone tone : allTones) {
        if (name == toneName(tone))
            return tone;
    }
    return std::nullopt;
}

QStringList toneNames()
{
    QStringList names;
    for (Tone tone : allTones)
        names << toneName(tone);
    return names;
}
