#pragma once

#include <QFuture>
#include <QList>
#include <QString>

#include <memory>

// One capture device as the sound system names it.
struct Microphone {
    // Stable across restarts and replugging; what the settings store keeps.
    QString uid;
    // What the user sees in a device picker.
    QString name;
    friend bool operator==(const Microphone&, const Microphone&) = default;
};

// The microphones the sound system offers, and whether we may record from them.
// Every answer arrives on a future that finishes within the seam's own time limit,
// so the main thread never waits on the sound server.
class Microphones
{
public:
    virtual ~Microphones() = default;

    // The capture devices in the sound system's own order; outputs' monitors are not
    // microphones and are left out. Empty when the sound system does not answer.
    virtual QFuture<QList<Microphone>> list() = 0;
    // Whether recording from the default input is allowed and possible right now.
    virtual QFuture<bool> permission() = 0;
    // Asks the system for permission where it asks the user; the answer is permission().
    virtual QFuture<bool> requestPermission() = 0;
};

// The sound server's devices; every query gives up after timeoutMs.
std::shared_ptr<Microphones> makeSystemMicrophones(int timeoutMs = 3000);
