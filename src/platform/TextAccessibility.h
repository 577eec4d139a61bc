#pragma once

#include <QString>

#include <memory>
#include <optional>

// A stretch of text inside an element, in the platform's character offsets (under
// AT-SPI: Unicode characters, not UTF-16 units). Length 0 is a plain caret.
struct TextRange {
    qint64 location = 0;
    qint64 length = 0;
};

// What reading an element's value gave: ok false when the read itself failed;
// text absent when the element has a value that is not text (a number, say).
struct ValueRead {
    bool ok = false;
    std::optional<QString> text;
};

// What reading an element's selection gave: ok false when the read failed or the
// element has no text selection at all; range absent when a selection is there
// but could not be extracted.
struct SelectionRead {
    bool ok = false;
    std::optional<TextRange> range;
};

// One element of another application's user interface, as the accessibility
// interface shows it. Each call asks the application afresh.
class AccessibleElement
{
public:
    virtual ~AccessibleElement() = default;

    // The element's role name ("text", "entry", ...); absent when it has none.
    virtual std::optional<QString> role() = 0;
    // The element's current value.
    virtual ValueRead value() = 0;
    // The selected range, or the caret as an empty range.
    virtual SelectionRead selection() = 0;
    // Replaces the element's whole value; false when the element refused or cannot be edited.
    virtual bool setValue(const QString& text) = 0;
    // Puts the caret at this character offset with nothing selected; false when refused.
    virtual bool setCaret(qint64 offset) = 0;
};

// The platform's accessibility interface, reduced to what text insertion needs.
class TextAccessibility
{
public:
    virtual ~TextAccessibility() = default;

    // Whether this process may read and edit other applications' elements right now.
    virtual bool isTrusted() = 0;
    // The element that has the keyboard focus; null when none can be found.
    virtual std::unique_ptr<AccessibleElement> focusedElement() = 0;
};

// The platform's accessibility interface. Cheap to create: it connects on first use.
std::unique_ptr<TextAccessibility> makeSystemTextAccessibility();
