#include "platform/linux/AtspiTextAccessibility.h"
#include "platform/linux/QtClipboardPasteboard.h"
#include "platform/linux/XTestPasteKeystroke.h"

std::unique_ptr<TextAccessibility> makeSystemTextAccessibility()
{
    return std::make_unique<AtspiTextAccessibility>();
}

std::unique_ptr<Pasteboard> makeSystemPasteboard()
{
    return std::make_unique<QtClipboardPasteboard>();
}

std::unique_ptr<PasteKeystroke> makeSystemPasteKeystroke()
{
    return std::make_unique<XTestPasteKeystroke>();
}
