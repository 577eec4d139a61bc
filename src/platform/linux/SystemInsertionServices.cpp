#include "AtspiTextAccessibility.h"
#include "QtClipboardPasteboard.h"
#include "XTestPasteKeystroke.h"

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
