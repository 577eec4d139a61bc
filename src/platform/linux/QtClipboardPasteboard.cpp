#include "platform/linux/QtClipboardPasteboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

namespace {

// Null outside a QGuiApplication, where there is no clipboard to reach.
QClipboard* clipboard()
{
    return qGuiApp ? QGuiApplication::clipboard() : nullptr;
}

} // namespace

std::optional<QString> QtClipboardPasteboard::plainText()
{
    QClipboard* board = clipboard();
    if (!board)
        return std::nullopt;
    const QMimeData* data = board->mimeData(QClipboard::Clipboard);
    if (!data || !data->hasText())
        return std::nullopt;
    return data->text();
}

QStringList QtClipboardPasteboard::types()
{
    QClipboard* board = clipboard();
    if (!board)
        return {};
    const QMimeData* data = board->mimeData(QClipboard::Clipboard);
    return data ? data->formats() : QStringList();
}

void QtClipboardPasteboard::clear()
{
    if (QClipboard* board = clipboard())
        board->clear(QClipboard::Clipboard);
}

void QtClipboardPasteboard::setPlainText(const QString& text)
{
    if (QClipboard* board = clipboard())
        board->setText(text, QClipboard::Clipboard);
}
