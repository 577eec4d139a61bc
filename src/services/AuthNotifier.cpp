#include "services/AuthNotifier.h"

AuthNotifier& AuthNotifier::instance()
{
    static AuthNotifier notifier;
    return notifier;
}
