#include "platform/linux/WtypePasteKeystroke.h"

#include "platform/linux/AtspiTextAccessibility.h"
#include "platform/linux/ChildProcess.h"
#include "platform/linux/FocusedTerminal.h"

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

WtypePasteKeystroke::WtypePasteKeystroke(bool available)
    : m_available(available)
    , m_accessibility(std::make_unique<AtspiTextAccessibility>())
{ }

WtypePasteKeystroke::~WtypePasteKeystroke() = default;

QStringList WtypePasteKeystroke::chordArguments(bool terminal)
{
    QStringList arguments { u"-M"_s, u"ctrl"_s };
    if (terminal)
        arguments << u"-M"_s << u"shift"_s;
    arguments << u"-k"_s << u"v"_s;
    if (terminal)
        arguments << u"-m"_s << u"shift"_s;
    arguments << u"-m"_s << u"ctrl"_s << u"-P"_s << u"Shift_L"_s << u"-p"_s << u"Shift_L"_s;
    return arguments;
}

QCoro::Task<> WtypePasteKeystroke::post()
{
    if (!m_available)
        co_return;
    const bool terminal = focusedApplicationIsTerminal(*m_accessibility);
    // wtype ends once the compositor has the keys: the clipboard restore counts from there.
    co_await runChildProcess(u"wtype"_s, chordArguments(terminal), QByteArray(), 2s);
}
