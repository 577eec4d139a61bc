#include "platform/DesktopShortcut.h"

DesktopShortcut::DesktopShortcut(QObject* parent)
    : QObject(parent)
{ }

DesktopShortcut& DesktopShortcut::shared()
{
    static DesktopShortcut instance;
    return instance;
}

void DesktopShortcut::setKeyboard()
{
    set(Status::keyboard, QString());
}

void DesktopShortcut::setAsking()
{
    set(Status::asking, QString());
}

void DesktopShortcut::setBound(const QString& trigger)
{
    if (trigger.trimmed().isEmpty())
        set(Status::unbound, QString());
    else
        set(Status::bound, trigger.trimmed());
}

void DesktopShortcut::setUnbound()
{
    set(Status::unbound, QString());
}

void DesktopShortcut::set(Status status, const QString& trigger)
{
    if (status == m_status && trigger == m_trigger)
        return;
    m_status = status;
    m_trigger = trigger;
    Q_EMIT changed();
}
