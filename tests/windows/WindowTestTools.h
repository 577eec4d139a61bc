#pragma once

#include <QPointF>
#include <QString>
#include <QStringList>

#include <optional>

class QQuickItem;
class QWindow;

namespace WindowTestTools {

// The first visual item under `root` (root included) with this object name, or null.
QQuickItem* findItem(QQuickItem* root, const QString& objectName);
// Clicks the middle of `item` with the left button, as a user would.
void click(QQuickItem* item);
// Asks the window to close the way a window manager does for its close button
// (WM_DELETE_WINDOW), over a connection of our own to the X server.
bool sendCloseRequest(QWindow* window);
// Runs a command and returns its standard output; nothing when it fails.
std::optional<QString> run(const QString& program, const QStringList& arguments);

} // namespace WindowTestTools
