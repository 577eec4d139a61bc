#include "dictation/TextInserter.h"

#include "platform/PasteKeystroke.h"
#include "platform/Pasteboard.h"
#include "platform/TextAccessibility.h"
#include "services/Log.h"

#include <QPointer>
#include <QTextBoundaryFinder>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

// The UTF-16 index at which the character with this offset starts, or the end of the text.
qsizetype utf16Index(QStringView text, qint64 characterOffset)
{
    qsizetype index = 0;
    for (qint64 characters = 0; characters < characterOffset && index < text.size(); ++characters) {
        const bool pair = text[index].isHighSurrogate() && index + 1 < text.size() && text[index + 1].isLowSurrogate();
        index += pair ? 2 : 1;
    }
    return index;
}

} // namespace

TextInserter::TextInserter(
    TextAccessibility& accessibility, Pasteboard& pasteboard, PasteKeystroke& pasteKeystroke, QObject* parent)
    : QObject(parent)
    , m_accessibility(accessibility)
    , m_pasteboard(pasteboard)
    , m_pasteKeystroke(pasteKeystroke)
{ }

TextInserter& TextInserter::shared()
{
    // The platform services live as long as the program: a restore may still be
    // pending when the last dictation ends.
    static const std::unique_ptr<TextAccessibility> accessibility = makeSystemTextAccessibility();
    static const std::unique_ptr<Pasteboard> pasteboard = makeSystemPasteboard();
    static const std::unique_ptr<PasteKeystroke> pasteKeystroke = [] {
        std::unique_ptr<PasteKeystroke> keystroke = makeSystemPasteKeystroke();
        keystroke->setNoticeHandler([](const QString& notice, bool problem) {
            Log::write(problem ? Log::Symbol::Warning : Log::Symbol::Insertion, notice);
        });
        return keystroke;
    }();
    static TextInserter instance(*accessibility, *pasteboard, *pasteKeystroke);
    return instance;
}

void TextInserter::prepare()
{
    m_pasteKeystroke.prepare();
}

InsertionResult TextInserter::insert(const QString& text)
{
    Log::write(
        Log::Symbol::Insertion, u"TextInserter.insert("_s + QString::number(characterCount(text)) + u" chars)"_s);
    if (tryAccessibilityInsert(text)) {
        Log::writeContinuation(u"\u2192 AX insert succeeded");
        return InsertionResult::inserted;
    }
    Log::writeContinuation(u"\u2192 AX failed, falling back to clipboard paste");
    if (!m_pasteboard.canWrite()) {
        Log::writeContinuation(u"\u2192 no clipboard to paste through: the text is only in the history");
        return InsertionResult::notInserted;
    }
    if (!m_pasteKeystroke.canPost()) {
        Log::writeContinuation(u"\u2192 no paste keystroke on this desktop: the text is left on the clipboard");
        leaveOnClipboard(text);
        return InsertionResult::leftOnClipboard;
    }
    clipboardPaste(text);
    return InsertionResult::pasted;
}

bool TextInserter::tryAccessibilityInsert(const QString& text)
{
    if (!m_accessibility.isTrusted()) {
        Log::writeContinuation(u"AX: process not trusted");
        return false;
    }
    const std::unique_ptr<AccessibleElement> focused = m_accessibility.focusedElement();
    if (!focused) {
        Log::writeContinuation(u"AX: no focused element");
        return false;
    }
    // The role is only reported: refusing roles would refuse fields that work.
    Log::writeContinuation(u"AX: focused role="_s + focused->role().value_or(u"?"_s));

    const ValueRead value = focused->value();
    if (!value.ok)
        return false;
    const QString current = value.text.value_or(QString());

    const SelectionRead selection = focused->selection();
    if (!selection.ok)
        return false;
    // A selection that is there but unreadable counts as the caret at the start,
    // rather than giving up on an element that can otherwise be edited.
    const TextRange range = selection.range.value_or(TextRange {});

    if (!focused->setValue(replaced(current, range, text)))
        return false;

    // The caret advances by user-perceived characters, not by the offsets the
    // element counts in: after an emoji sequence or a combining mark it lands
    // short of the end of the insertion. Kept on purpose, so every platform
    // leaves the caret in the same place.
    const qint64 caret = std::max<qint64>(range.location, 0) + characterCount(text);
    focused->setCaret(caret);
    return true;
}

// Where the clipboard answers at once (X11's QClipboard) every step below finishes
// before the next starts, all within insert(); where it is another program (Wayland's
// wl-copy, wtype) each step waits for it without holding up the event loop.
QCoro::Task<> TextInserter::clipboardPaste(QString text)
{
    const QPointer<TextInserter> self(this);
    // Only the plain text survives the round trip; images, files and rich text on
    // the clipboard are given up on purpose. The list of kinds is still asked for,
    // as some clipboard owners only settle what they offer once asked.
    const std::optional<QString> saved = co_await m_pasteboard.plainText();
    if (!self)
        co_return;
    static_cast<void>(co_await m_pasteboard.types());
    if (!self)
        co_return;

    co_await m_pasteboard.clear();
    if (!self)
        co_return;
    co_await m_pasteboard.setPlainText(text);
    if (!self)
        co_return;
    co_await simulatePaste();
    if (!self)
        co_return;

    // The target application asks for the clipboard only after it has handled the
    // keystroke; restoring at once would hand it the old text.
    Pasteboard* pasteboard = &m_pasteboard;
    QTimer::singleShot(restoreDelay, this, [pasteboard, saved] { restore(pasteboard, saved); });
}

QCoro::Task<> TextInserter::restore(Pasteboard* pasteboard, std::optional<QString> saved)
{
    co_await pasteboard->clear();
    if (saved)
        co_await pasteboard->setPlainText(*saved);
}

QCoro::Task<> TextInserter::leaveOnClipboard(QString text)
{
    const QPointer<TextInserter> self(this);
    co_await m_pasteboard.clear();
    if (!self)
        co_return;
    co_await m_pasteboard.setPlainText(text);
}

QCoro::Task<> TextInserter::simulatePaste()
{
    co_await m_pasteKeystroke.post();
}

qint64 TextInserter::characterCount(QStringView text)
{
    if (text.isEmpty())
        return 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text.data(), static_cast<int>(text.size()));
    qint64 count = 0;
    while (finder.toNextBoundary() > 0)
        ++count;
    return count;
}

QString TextInserter::replaced(QStringView text, TextRange range, QStringView insertion)
{
    const qint64 location = std::max<qint64>(range.location, 0);
    const qint64 length = std::max<qint64>(range.length, 0);
    const qsizetype start = utf16Index(text, location);
    const qsizetype end = start + utf16Index(text.mid(start), length);
    QString result;
    result.reserve(text.size() - (end - start) + insertion.size());
    result.append(text.first(start));
    result.append(insertion);
    result.append(text.mid(end));
    return result;
}
