#pragma once

#include "ui/HUDWindowController.h"

#include <QColor>
#include <QImage>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <functional>

// Reads a live capsule the way a user and a maintainer would: its items through
// the QML object tree, its pixels through a grab of the window.
namespace HUDProbe {

inline HUDTiming fastTiming()
{
    using namespace std::chrono_literals;
    return { .fadeIn = 20ms, .fadeOut = 20ms, .errorDismissal = 150ms, .successDismissal = 100ms };
}

// The first item of this objectName in the visual tree under this one. The rows
// come from a Loader, which does not make them QObject children, so findChild
// would not see them.
inline QQuickItem* findItem(QQuickItem* from, const QString& name)
{
    if (!from)
        return nullptr;
    if (from->objectName() == name)
        return from;
    const QList<QQuickItem*> children = from->childItems();
    for (QQuickItem* child : children) {
        if (QQuickItem* found = findItem(child, name))
            return found;
    }
    return nullptr;
}

// The item of this objectName inside the capsule (the current row's text is "hudText").
inline QQuickItem* item(const HUDWindowController& hud, const QString& name)
{
    return findItem(hud.rootItem(), name);
}

// Waits until the window is mapped and has drawn.
inline bool waitForExposed(const HUDWindowController& hud)
{
    return hud.window() && QTest::qWaitForWindowExposed(hud.window(), 5000);
}

// The window's pixels, once the renderer has caught up with a change of size
// (the window grows for two-line texts and the tone picker).
inline QImage grab(const HUDWindowController& hud)
{
    QImage image;
    // The outcome is the image itself; its size is checked by the caller's use.
    static_cast<void>(QTest::qWaitFor(
        [&] {
            image = hud.window()->grabWindow();
            return image.size() == hud.window()->size() * hud.window()->devicePixelRatio();
        },
        5000));
    return image;
}

// Keeps a copy of a grab under /tmp for a look by eye when HUD_TEST_SAVE_IMAGES is set.
inline void keepForViewing(const QImage& image, const QString& name)
{
    if (qEnvironmentVariableIsSet("HUD_TEST_SAVE_IMAGES"))
        image.save(QStringLiteral("/tmp/hud-%1.png").arg(name));
}

// The item's rectangle in window pixels.
inline QRect windowRect(const QQuickItem* item)
{
    return item->mapRectToScene(QRectF(0, 0, item->width(), item->height())).toAlignedRect();
}

// How many pixels of the grabbed window inside this rectangle pass the test.
inline int countPixels(const QImage& image, const QRect& area, const std::function<bool(QColor)>& test)
{
    int count = 0;
    const QRect inside = area.intersected(image.rect());
    for (int y = inside.top(); y <= inside.bottom(); ++y) {
        for (int x = inside.left(); x <= inside.right(); ++x) {
            if (test(image.pixelColor(x, y)))
                ++count;
        }
    }
    return count;
}

// Glyph pixels: the texts are dark grey on a near-white capsule.
inline bool isInk(QColor c)
{
    return qGray(c.rgb()) < 170;
}

inline bool isGreen(QColor c)
{
    return c.green() > 150 && c.red() < 120 && c.blue() < 140;
}

inline bool isOrange(QColor c)
{
    return c.red() > 200 && c.green() > 100 && c.green() < 190 && c.blue() < 80;
}

} // namespace HUDProbe
