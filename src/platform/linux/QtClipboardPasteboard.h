#pragma once

#include "platform/Pasteboard.h"

// The desktop clipboard through QClipboard. Under X11 the clipboard is a promise
// by its owner, not a copy: text put there is served by this process's event
// loop, which is why the dictation program (alive for the whole session) can own it.
class QtClipboardPasteboard final : public Pasteboard
{
public:
    QCoro::Task<std::optional<QString>> plainText() override;
    QCoro::Task<QStringList> types() override;
    QCoro::Task<> clear() override;
    QCoro::Task<> setPlainText(const QString& text) override;
};
