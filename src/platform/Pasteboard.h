#pragma once

#include <QString>
#include <QStringList>

#include <QCoroTask>

#include <memory>
#include <optional>

// The desktop's clipboard, reduced to plain text. Each call may have to ask another
// program (the clipboard's owner, a clipboard client): the tasks finish when it
// answered, and where the answer is at hand they are finished when they return.
class Pasteboard
{
public:
    virtual ~Pasteboard() = default;

    // The clipboard's plain text; absent when it holds no text (nothing, or only an image).
    virtual QCoro::Task<std::optional<QString>> plainText() = 0;
    // The kinds of data on the clipboard, as MIME types.
    virtual QCoro::Task<QStringList> types() = 0;
    // Empties the clipboard.
    virtual QCoro::Task<> clear() = 0;
    // Puts this text on the clipboard as its only content.
    virtual QCoro::Task<> setPlainText(const QString& text) = 0;
    // Whether this process can put anything on the clipboard at all.
    virtual bool canWrite() const { return true; }
};

// The desktop's clipboard. Needs a running QGuiApplication; whatever this process
// puts there stays available only while the process runs its event loop.
std::unique_ptr<Pasteboard> makeSystemPasteboard();
