#pragma once

#include <QImage>
#include <QRect>
#include <QRgb>
#include <QString>

#include <optional>

class QWindow;

// What the X server shows, read back the way a screenshot tool does: XGetImage on
// the root window, so a window that renders into its own buffers but never reaches
// the screen reads as the black (or whatever) beneath it. Not QQuickWindow::grabWindow,
// which renders the scene again offscreen and would look fine either way.
namespace ScreenPixels {

// Where the window's client area is on the screen, once the window is viewable
// (mapped, and its parents too); nothing while it is not. Asks the X server, so a
// window manager's frame and placement are taken into account.
std::optional<QRect> rectOnScreen(const QWindow* window);

// Where the viewable window of this title (_NET_WM_NAME, else WM_NAME) is on the
// screen, searched through the whole window tree (a window manager's frames
// included); nothing when no such window is viewable. For another program's windows.
std::optional<QRect> rectOnScreen(const QString& title);

// The screen's pixels in `rect` (screen coordinates), as RGB32; null when the
// display cannot be read.
QImage grabScreen(const QRect& rect);

// The colour most pixels of `image` within `box` have (the whole image without a box).
QRgb dominantColour(const QImage& image, const QRect& box = {});
// True when every pixel of the image has the same colour.
bool isOneColour(const QImage& image);
// How many pixels in `box` differ clearly from `background` (in any channel by more
// than `tolerance`): the ink of a text or an icon drawn there.
int inkPixels(const QImage& image, const QRect& box, QRgb background, int tolerance = 40);

// How many pixels of `a` differ clearly from the pixel at the same place in `b`
// (both of one size; -1 when they are not).
int differingPixels(const QImage& a, const QImage& b, int tolerance = 40);
// The whole screen.
QImage grabWholeScreen();

// Writes `image` as <name>.png into the folder for screenshots of failed checks
// (QUILLET_SCREENSHOT_DIR, else "screenshots" in the working directory) and returns
// the file's path; empty when it could not be written.
QString keepForInspection(const QImage& image, const QString& name);

} // namespace ScreenPixels
