#pragma once

#include <QCoroTask>
#include <QList>
#include <QString>

#include <functional>
#include <memory>

// The synthetic key press that makes the focused application paste its clipboard.
class PasteKeystroke
{
public:
    virtual ~PasteKeystroke() = default;

    // Presses and releases the focused application's paste keys, with no other
    // modifier held even while the user still holds one. Finished once the keys are
    // on their way to the application.
    virtual QCoro::Task<> post() = 0;
    // Whether a keystroke can be sent at all on this desktop, right now.
    virtual bool canPost() const { return true; }
    // Gets ready ahead of the first paste: where the desktop asks the user's consent
    // for synthetic keys, it asks when the program starts rather than mid-dictation.
    virtual void prepare() { }
    // Receives, on the same thread, one sentence when the route becomes ready or is
    // lost later on (problem: the desktop refused or closed it); call before prepare().
    using NoticeHandler = std::function<void(const QString& notice, bool problem)>;
    virtual void setNoticeHandler(NoticeHandler handler) { static_cast<void>(handler); }
};

// The desktop's synthetic paste keystroke.
std::unique_ptr<PasteKeystroke> makeSystemPasteKeystroke();

// One key of the paste chord going down or up, named by its X keysym (the names a
// desktop's remote-input portal takes).
struct PasteKeyEdge {
    quint32 keysym = 0;
    bool pressed = false;

    bool operator==(const PasteKeyEdge&) const = default;
};

// The paste chord key by key: Control+V, or Control+Shift+V in a terminal emulator.
QList<PasteKeyEdge> pasteChordKeysyms(bool terminal);
