#include "ui/HUDMode.h"

HUDMode HUDMode::tonePicker(ToneHandler onSelect, DismissHandler onDismiss)
{
    HUDMode mode(Kind::tonePicker);
    mode.m_onSelect = std::move(onSelect);
    mode.m_onDismiss = std::move(onDismiss);
    return mode;
}

HUDMode HUDMode::rewriting(Tone tone)
{
    HUDMode mode(Kind::rewriting);
    mode.m_tone = tone;
    return mode;
}

HUDMode HUDMode::success(std::optional<Tone> tone)
{
    HUDMode mode(Kind::success);
    mode.m_tone = tone;
    return mode;
}

HUDMode HUDMode::error(QString message)
{
    HUDMode mode(Kind::error);
    mode.m_message = std::move(message);
    return mode;
}

bool operator==(const HUDMode& a, const HUDMode& b)
{
    if (a.m_kind != b.m_kind)
        return false;
    switch (a.m_kind) {
    case HUDMode::Kind::dictating:
    case HUDMode::Kind::tone:
    case HUDMode::Kind::cleaning:
        return true;
    case HUDMode::Kind::tonePicker:
        return false;
    case HUDMode::Kind::rewriting:
    case HUDMode::Kind::success:
        return a.m_tone == b.m_tone;
    case HUDMode::Kind::error:
        return a.m_message == b.m_message;
    }
    return false;
}
