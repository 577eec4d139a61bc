#include "platform/linux/FocusedTerminal.h"

#include "platform/linux/AtspiTextAccessibility.h"
#include "platform/linux/XTestPasteKeystroke.h"

bool focusedApplicationIsTerminal(AtspiTextAccessibility& accessibility)
{
    const std::optional<QString> application = accessibility.focusedApplicationName();
    return application && XTestPasteKeystroke::isTerminal(*application, *application);
}
