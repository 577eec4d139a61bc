#pragma once

#include "services/HistoryManager.h"

#include <QByteArray>
#include <QList>
#include <QString>

// The history as `quillet --history` prints it: one entry per line, newest first,
// continuation lines indented. Dictated text comes from a backend and may hold
// anything; on a terminal a control character can set the title, clear the screen
// or hide what follows, so each one is shown as a visible escape instead ("\e", "\0",
// "\x7f", …). Nothing is dropped: every character of the text is accounted for.
namespace HistoryText {

// One text made safe for a terminal; line breaks are kept (as real line breaks).
QString escapeControls(const QString& text);
// Every entry, "yyyy-MM-dd HH:mm:ss  text\n", in local time, as UTF-8.
QByteArray forTerminal(const QList<HistoryEntry>& entries);

} // namespace HistoryText
