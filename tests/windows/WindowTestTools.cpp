#include "WindowTestTools.h"

#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

// Xlib after Qt: its macros (None, Bool, Status) would break Qt's headers.
#include <X11/Xlib.h>

QQuickItem* WindowTestTools::findItem(QQuickItem* root, const QString& objectName)
{
    if (!root)
        return nullptr;
    if (root->objectName() == objectName)
        return root;
    const QList<QQuickItem*> children = root->childItems();
    for (QQuickItem* child : children) {
        if (QQuickItem* found = findItem(child, objectName))
            return found;
    }
    return nullptr;
}

void WindowTestTools::click(QQuickItem* item)
{
    QVERIFY(item);
    QVERIFY2(item->isVisible(), qPrintable(item->objectName()));
    QVERIFY2(item->isEnabled(), qPrintable(item->objectName()));
    const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    QTest::mouseClick(item->window(), Qt::LeftButton, {}, centre.toPoint());
}

bool WindowTestTools::sendCloseRequest(QWindow* window)
{
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return false;
    XEvent event {};
    event.xclient.type = ClientMessage;
    event.xclient.window = Window(window->winId());
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = long(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    const Status sent = XSendEvent(display, Window(window->winId()), False, NoEventMask, &event);
    XFlush(display);
    XCloseDisplay(display);
    return sent != 0;
}

std::optional<QString> WindowTestTools::run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        qWarning("%s failed: %s", qPrintable(program), process.readAllStandardError().constData());
        return std::nullopt;
    }
    return QString::fromUtf8(process.readAllStandardOutput());
}
