#include "ui/HUDState.h"

HUDState::HUDState(QObject* parent)
    : QObject(parent)
{ }

void HUDState::setMode(HUDMode mode)
{
    const bool notify = shouldNotifyObservers(m_mode, mode);
    m_mode = std::move(mode);
    if (notify)
        Q_EMIT modeChanged();
}

void HUDState::setPartialText(const QString& text)
{
    if (text == m_partialText)
        return;
    m_partialText = text;
    Q_EMIT partialTextChanged();
}

QString HUDState::toneLabel() const
{
    const auto tone = m_mode.associatedTone();
    return tone ? Tones::label(*tone) : QString();
}

QStringList HUDState::toneLabels() const
{
    QStringList labels;
    for (Tone tone : Tones::allCases)
        labels.append(Tones::label(tone));
    return labels;
}

void HUDState::dismissTonePicker()
{
    if (m_mode.kind() != HUDMode::Kind::tonePicker)
        return;
    // Copied first, as in selectTone().
    const HUDMode::DismissHandler handler = m_mode.dismissHandler();
    if (handler)
        handler();
}

bool HUDState::canDismissTonePicker() const
{
    return m_mode.kind() == HUDMode::Kind::tonePicker && bool(m_mode.dismissHandler());
}

void HUDState::selectTone(int index)
{
    if (m_mode.kind() != HUDMode::Kind::tonePicker || index < 0 || index >= int(Tones::allCases.size()))
        return;
    // Copied first: the handler usually replaces the mode, and with it this very handler.
    const HUDMode::ToneHandler handler = m_mode.toneHandler();
    if (handler)
        handler(Tones::allCases[size_t(index)]);
}
