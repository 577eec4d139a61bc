#pragma once

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

// The desktop's clipboard, reduced to plain text.
class Pasteboard
{
public:
    virtual ~Pasteboard() = default;

    // The clipboard's plain text; absent when it holds no text (nothing, or only an image).
    virtual std::optional<QString> plainText() = 0;
    // The kinds of data on the clipboard, as MIME types.
    virtual QStringList types() = 0;
    // Empties the clipboard.
    virtual void clear() = 0;
    // Puts this text on the clipboard as its only content.
    virtual void setPlainText(const QString& text) = 0;
};

// The desktop's clipboard. Needs a running QGuiApplication; whatever this process
// puts there stays available only while the process runs its event loop.
std::unique_ptr<Pasteboard> makeSystemPasteboard();
