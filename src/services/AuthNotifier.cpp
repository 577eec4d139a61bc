#include "AuthNotifier.h"

AuthNotifier& AuthNotifier::instance()
{
    static AuthNotifier notifier;
    return notifier;
}
