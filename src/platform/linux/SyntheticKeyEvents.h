#pragma once

// The key events this process sends through XTest itself (the paste keystroke
// releasing and pressing again the modifiers the user holds), announced before
// they are sent so that the key monitor can tell them from the user's own.
//
// The monitor cannot tell them apart by device: XTest events all come from the
// server's one "XTEST keyboard" device, whoever sent them (xdotool, a remote
// desktop, an on-screen keyboard: all of them are the user's input for us). So
// the sender lists the exact presses and releases it is about to make, and the
// monitor, seeing one of them arrive from an XTest device, takes it off the list
// and ignores it. Nothing is listed while no monitor listens, and an entry that
// never arrives (the server dropped a release of a key that device did not hold)
// is forgotten after a couple of seconds, so it cannot swallow a later press.
// Main thread only, like everything else that talks to the X server here.
namespace SyntheticKeyEvents {

// A key monitor starts (true) or stops (false) listening.
void setListening(bool listening);

// This process is about to send a press (or release) of the X keycode through XTest.
void expect(unsigned keycode, bool press);

// Whether a press (or release) of the X keycode that came from an XTest device was
// announced by expect(); it is taken off the list if so.
bool consume(unsigned keycode, bool press);

} // namespace SyntheticKeyEvents
