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

// QClipboard answers at once (it waits for the X11 owner itself), so every task here is
// finished when it returns.
QCoro::Task<std::optional<QString>> QtClipboardPasteboard::plainText()
{
    QClipboard* board = clipboard();
    if (!board)
        co_return std::nullopt;
    const QMimeData* data = board->mimeData(QClipboard::Clipboard);
    if (!data || !data->hasText())
        co_return std::nullopt;
    co_return data->text();
}

QCoro::Task<QStringList> QtClipboardPasteboard::types()
{
    QClipboard* board = clipboard();
    if (!board)
        co_return QStringList();
    const QMimeData* data = board->mimeData(QClipboard::Clipboard);
    co_return data ? data->formats() : QStringList();
}

QCoro::Task<> QtClipboardPasteboard::clear()
{
    if (QClipboard* board = clipboard())
        board->clear(QClipboard::Clipboard);
    co_return;
}

QCoro::Task<> QtClipboardPasteboard::setPlainText(const QString& text)
{
    if (QClipboard* board = clipboard())
        board->setText(text, QClipboard::Clipboard);
    co_return;
}
