#include "ScreenPixels.h"

#include <QDir>
#include <QHash>
#include <QWindow>

// Xlib after Qt: its macros (None, Bool, Status) would break Qt's headers.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

// One connection for the whole test: each grab is a round trip, not a new client.
Display* display()
{
    static Display* const connection = XOpenDisplay(nullptr);
    return connection;
}

int channelDistance(QRgb a, QRgb b)
{
    return std::max({ std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b)) });
}

} // namespace

std::optional<QRect> ScreenPixels::rectOnScreen(const QWindow* window)
{
    Display* connection = display();
    if (!connection || !window || !window->handle())
        return std::nullopt;
    const Window id = Window(window->winId());
    XWindowAttributes attributes {};
    if (!XGetWindowAttributes(connection, id, &attributes) || attributes.map_state != IsViewable)
        return std::nullopt;
    int x = 0;
    int y = 0;
    Window child = 0;
    if (!XTranslateCoordinates(connection, id, attributes.root, 0, 0, &x, &y, &child))
        return std::nullopt;
    return QRect(x, y, attributes.width, attributes.height);
}

namespace {

QString titleOf(Display* connection, Window window)
{
    const Atom netName = XInternAtom(connection, "_NET_WM_NAME", False);
    const Atom utf8 = XInternAtom(connection, "UTF8_STRING", False);
    Atom type = 0;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(connection, window, netName, 0, 1024, False, utf8, &type, &format, &count, &remaining, &data)
            == Success
        && data) {
        const QString title = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(count));
        XFree(data);
        if (type == utf8)
            return title;
    }
    char* name = nullptr;
    if (XFetchName(connection, window, &name) && name) {
        const QString title = QString::fromLocal8Bit(name);
        XFree(name);
        return title;
    }
    return {};
}

std::optional<QRect> findViewable(Display* connection, Window window, const QString& title)
{
    XWindowAttributes attributes {};
    if (!XGetWindowAttributes(connection, window, &attributes) || attributes.map_state != IsViewable)
        return std::nullopt;
    if (titleOf(connection, window) == title) {
        int x = 0;
        int y = 0;
        Window child = 0;
        if (XTranslateCoordinates(connection, window, attributes.root, 0, 0, &x, &y, &child))
            return QRect(x, y, attributes.width, attributes.height);
    }
    Window root = 0;
    Window parent = 0;
    Window* children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(connection, window, &root, &parent, &children, &count))
        return std::nullopt;
    std::optional<QRect> found;
    for (unsigned int i = 0; i < count && !found; ++i)
        found = findViewable(connection, children[i], title);
    if (children)
        XFree(children);
    return found;
}

} // namespace

std::optional<QRect> ScreenPixels::rectOnScreen(const QString& title)
{
    Display* connection = display();
    if (!connection)
        return std::nullopt;
    return findViewable(connection, DefaultRootWindow(connection), title);
}

QImage ScreenPixels::grabScreen(const QRect& rect)
{
    Display* connection = display();
    if (!connection || rect.isEmpty())
        return {};
    // Only the part that lies on the screen can be read.
    const Window root = DefaultRootWindow(connection);
    const QRect screen(0, 0, DisplayWidth(connection, DefaultScreen(connection)),
        DisplayHeight(connection, DefaultScreen(connection)));
    const QRect area = rect.intersected(screen);
    if (area.isEmpty())
        return {};
    XImage* pixels = XGetImage(
        connection, root, area.x(), area.y(), unsigned(area.width()), unsigned(area.height()), AllPlanes, ZPixmap);
    if (!pixels)
        return {};
    QImage image(area.size(), QImage::Format_RGB32);
    const unsigned long redMask = pixels->red_mask;
    const unsigned long greenMask = pixels->green_mask;
    const unsigned long blueMask = pixels->blue_mask;
    const auto channel = [](unsigned long pixel, unsigned long mask) {
        if (!mask)
            return 0;
        int shift = 0;
        while (!((mask >> shift) & 1))
            ++shift;
        const unsigned long max = mask >> shift;
        return int(((pixel & mask) >> shift) * 255 / max);
    };
    for (int y = 0; y < area.height(); ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < area.width(); ++x) {
            const unsigned long pixel = XGetPixel(pixels, x, y);
            line[x] = qRgb(channel(pixel, redMask), channel(pixel, greenMask), channel(pixel, blueMask));
        }
    }
    XDestroyImage(pixels);
    return image;
}

QRgb ScreenPixels::dominantColour(const QImage& image, const QRect& box)
{
    const QRect area = box.isNull() ? image.rect() : box.intersected(image.rect());
    QHash<QRgb, int> counts;
    QRgb best = 0;
    int bestCount = -1;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QRgb pixel = image.pixel(x, y) | 0xff000000u;
            const int count = ++counts[pixel];
            if (count > bestCount) {
                best = pixel;
                bestCount = count;
            }
        }
    }
    return best;
}

bool ScreenPixels::isOneColour(const QImage& image)
{
    if (image.isNull())
        return true;
    const QRgb first = image.pixel(0, 0);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (image.pixel(x, y) != first)
                return false;
        }
    }
    return true;
}

int ScreenPixels::inkPixels(const QImage& image, const QRect& box, QRgb background, int tolerance)
{
    const QRect area = box.intersected(image.rect());
    int ink = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            if (channelDistance(image.pixel(x, y), background) > tolerance)
                ++ink;
        }
    }
    return ink;
}

int ScreenPixels::differingPixels(const QImage& a, const QImage& b, int tolerance)
{
    if (a.size() != b.size())
        return -1;
    int differing = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            if (channelDistance(a.pixel(x, y), b.pixel(x, y)) > tolerance)
                ++differing;
        }
    }
    return differing;
}

QImage ScreenPixels::grabWholeScreen()
{
    Display* connection = display();
    if (!connection)
        return {};
    const int screen = DefaultScreen(connection);
    return grabScreen(QRect(0, 0, DisplayWidth(connection, screen), DisplayHeight(connection, screen)));
}

QString ScreenPixels::keepForInspection(const QImage& image, const QString& name)
{
    QString folder = qEnvironmentVariable("QUILLET_SCREENSHOT_DIR");
    if (folder.isEmpty())
        folder = QDir::current().filePath(QStringLiteral("screenshots"));
    if (!QDir().mkpath(folder))
        return {};
    QString safe = name;
    for (QChar& c : safe) {
        if (!c.isLetterOrNumber() && c != u'-' && c != u'_')
            c = u'_';
    }
    const QString path = QDir(folder).filePath(safe + QStringLiteral(".png"));
    return image.save(path, "PNG") ? path : QString();
}
