#pragma once

#include <QObject>

// Process-wide announcements about the user's credentials.
class AuthNotifier : public QObject
{
    Q_OBJECT
public:
    static AuthNotifier& instance();

Q_SIGNALS:
    // The backend rejected the refresh token and the stored tokens were removed:
    // the user is signed out. Receivers on other threads get it queued.
    void quilletAuthInvalidated();

private:
    AuthNotifier() = default;
};
