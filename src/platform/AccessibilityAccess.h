#pragma once

#include <QFuture>

#include <memory>

// Whether this program may read and write other applications' text fields, and the
// switch that allows it. Answers arrive on futures; nothing here blocks the caller.
class AccessibilityAccess
{
public:
    virtual ~AccessibilityAccess() = default;

    // True while assistive access to other applications is allowed; false when it
    // is not or the system does not answer.
    virtual QFuture<bool> isTrusted() = 0;
    // Allows it, as the desktop's own settings would; call only on the user's
    // request. The answer is whether the system accepted the change.
    virtual QFuture<bool> enable() = 0;
};

std::shared_ptr<AccessibilityAccess> makeSystemAccessibilityAccess();
