#pragma once

#include <QByteArray>

// How many streams this machine decodes in real time, from a measurement made at start-up.
namespace Capacity {

// Two seconds of speech-like sound (voiced syllables with moving formants, hiss between
// them), 16 kHz mono int16. The decoder hears it as speech and searches it as it would a
// dictation, so its cost is a dictation's cost; the same samples on every run.
QByteArray calibrationClip();

// Streams that `cores` decoding threads keep in real time when one stream costs
// `realTimeFactor` seconds of processor time per second of audio, with room left for the
// network, the other threads and the variation between voices. At least 1.
int streams(int cores, double realTimeFactor);

} // namespace Capacity
