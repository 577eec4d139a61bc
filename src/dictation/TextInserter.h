#pragma once

#include <QObject>
#include <QString>
#include <QStringView>

#include <QCoroTask>

#include <chrono>
#include <optional>

class PasteKeystroke;
class Pasteboard;
class TextAccessibility;
struct TextRange;

// Where a dictation's text went.
enum class InsertionResult {
    inserted, // into the focused element, through the accessibility interface
    pasted, // through the clipboard and the paste keystroke (the application's answer is not seen)
    leftOnClipboard, // on the clipboard only: this desktop takes no synthetic paste keystroke
    notInserted, // nowhere: this desktop lets us neither edit the element nor use the clipboard
};

// Puts the final text of a dictation at the text cursor of whichever application
// has the keyboard focus: first by editing the focused element through the
// accessibility interface, else through the clipboard and a synthetic paste,
// giving the clipboard its previous plain text back a moment later.
// Keeps nothing between calls; it is a QObject only so that a pending clipboard
// restore dies with it.
class TextInserter : public QObject
{
    Q_OBJECT
public:
    // How long the pasted text stays on the clipboard before the previous text returns.
    static constexpr std::chrono::milliseconds restoreDelay { 300 };

    TextInserter(TextAccessibility& accessibility, Pasteboard& pasteboard, PasteKeystroke& pasteKeystroke,
        QObject* parent = nullptr);

    // The instance the dictation session uses, wired to the platform. Create it on
    // the main thread of a running QGuiApplication.
    static TextInserter& shared();

    // Readies the paste keystroke ahead of the first insertion: a desktop that asks the
    // user's consent for synthetic keys asks now, not in the middle of a dictation.
    void prepare();

    // Inserts the text and says where it went; its log lines are the only other trace. The
    // clipboard's restore, and on some desktops the paste itself, finish after it returns.
    InsertionResult insert(const QString& text);

    // The number of user-perceived characters (grapheme clusters) in the text.
    static qint64 characterCount(QStringView text);
    // The text with the range (in Unicode characters, clamped to the text) replaced by the insertion.
    static QString replaced(QStringView text, TextRange range, QStringView insertion);

private:
    bool tryAccessibilityInsert(const QString& text);
    QCoro::Task<> clipboardPaste(QString text);
    QCoro::Task<> simulatePaste();
    QCoro::Task<> leaveOnClipboard(QString text);
    static QCoro::Task<> restore(Pasteboard* pasteboard, std::optional<QString> saved);

    TextAccessibility& m_accessibility;
    Pasteboard& m_pasteboard;
    PasteKeystroke& m_pasteKeystroke;
};
