#pragma once

#include "platform/PasteKeystroke.h"
#include "platform/Pasteboard.h"
#include "platform/TextAccessibility.h"

#include <QString>
#include <QStringList>

#include <QCoroTimer>

#include <chrono>

#include <functional>
#include <memory>
#include <optional>

// The focused element a test sets up, and what was done to it. Shared between the
// fake service and the elements it hands out, which the inserter destroys.
struct FakeFocus {
    std::optional<QString> role = QStringLiteral("text");
    ValueRead value { true, QString() };
    SelectionRead selection { true, TextRange {} };
    bool acceptsValue = true;
    bool acceptsCaret = true;

    std::optional<QString> writtenValue;
    std::optional<qint64> caret;
    QStringList calls;
};

class FakeElement final : public AccessibleElement
{
public:
    explicit FakeElement(FakeFocus& focus)
        : m_focus(focus)
    { }
    std::optional<QString> role() override
    {
        m_focus.calls << QStringLiteral("role");
        return m_focus.role;
    }
    ValueRead value() override
    {
        m_focus.calls << QStringLiteral("value");
        return m_focus.value;
    }
    SelectionRead selection() override
    {
        m_focus.calls << QStringLiteral("selection");
        return m_focus.selection;
    }
    bool setValue(const QString& text) override
    {
        m_focus.calls << QStringLiteral("setValue");
        if (m_focus.acceptsValue)
            m_focus.writtenValue = text;
        return m_focus.acceptsValue;
    }
    bool setCaret(qint64 offset) override
    {
        m_focus.calls << QStringLiteral("setCaret");
        m_focus.caret = offset;
        return m_focus.acceptsCaret;
    }

private:
    FakeFocus& m_focus;
};

class FakeAccessibility final : public TextAccessibility
{
public:
    bool trusted = true;
    bool hasFocusedElement = true;
    FakeFocus focus;

    bool isTrusted() override { return trusted; }
    std::unique_ptr<AccessibleElement> focusedElement() override
    {
        if (!hasFocusedElement)
            return nullptr;
        return std::make_unique<FakeElement>(focus);
    }
};

// A clipboard that remembers its text and the kinds it claims, and logs every call.
// With a delay, each call answers that much later, as a clipboard client program does
// (the call is logged when it is made, its effect happens when it answers).
class FakePasteboard final : public Pasteboard
{
public:
    std::optional<QString> text;
    QStringList formats;
    QStringList calls;
    bool writable = true;
    std::chrono::milliseconds delay { 0 };

    QCoro::Task<std::optional<QString>> plainText() override
    {
        calls << QStringLiteral("plainText");
        co_await answerLater();
        co_return text;
    }
    QCoro::Task<QStringList> types() override
    {
        calls << QStringLiteral("types");
        co_await answerLater();
        co_return formats;
    }
    QCoro::Task<> clear() override
    {
        calls << QStringLiteral("clear");
        co_await answerLater();
        text.reset();
        formats.clear();
    }
    QCoro::Task<> setPlainText(const QString& value) override
    {
        calls << QStringLiteral("set:") + value;
        co_await answerLater();
        text = value;
        formats = QStringList { QStringLiteral("text/plain") };
    }
    bool canWrite() const override { return writable; }

private:
    QCoro::Task<> answerLater()
    {
        if (delay.count() > 0)
            co_await QCoro::sleepFor(delay);
    }
};

// Records each paste keystroke together with what the clipboard held at that moment.
class FakePasteKeystroke final : public PasteKeystroke
{
public:
    explicit FakePasteKeystroke(FakePasteboard& pasteboard)
        : m_pasteboard(pasteboard)
    { }
    QList<std::optional<QString>> clipboardAtEachPost;
    bool available = true;

    QCoro::Task<> post() override
    {
        m_pasteboard.calls << QStringLiteral("post");
        clipboardAtEachPost << m_pasteboard.text;
        co_return;
    }
    bool canPost() const override { return available; }

private:
    FakePasteboard& m_pasteboard;
};
