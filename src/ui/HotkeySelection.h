#pragma once

#include "platform/DesktopShortcut.h"
#include "services/SettingsStore.h"

#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

// The hotkey choices as a picker shows them, bound to the settings store: picking
// one writes it at once, and a change made elsewhere moves the selection. On a Wayland
// session it also says how the hotkey reaches the program there: the key the desktop
// bound, or how to bind one.
class HotkeySelection : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Made by the window that shows it")
    // Every choice's display name, in the order of Hotkeys::allCases.
    Q_PROPERTY(QStringList names READ names CONSTANT)
    Q_PROPERTY(int currentIndex READ currentIndex WRITE setCurrentIndex NOTIFY currentIndexChanged)
    Q_PROPERTY(QString currentName READ currentName NOTIFY currentIndexChanged)
    // Which physical key each choice means on this system.
    Q_PROPERTY(QString keyboardNote READ keyboardNote CONSTANT)
    // Where the desktop owns the keys (Wayland), what it did with the hotkey: the key it
    // bound, or that none is bound yet. Empty on X11, where keyboardNote applies.
    Q_PROPERTY(QString desktopNote READ desktopNote NOTIFY desktopNoteChanged)
    // The lines to bind a key with when the desktop bound none; empty otherwise.
    Q_PROPERTY(QString bindingSnippet READ bindingSnippet NOTIFY desktopNoteChanged)

public:
    // desktop: what the desktop did with the hotkey (the session's own by default).
    explicit HotkeySelection(
        SettingsStore& store, QObject* parent = nullptr, DesktopShortcut& desktop = DesktopShortcut::shared());

    QStringList names() const;
    int currentIndex() const;
    // Indexes outside the list are ignored.
    void setCurrentIndex(int index);
    QString currentName() const;
    static QString keyboardNote();
    QString desktopNote() const;
    QString bindingSnippet() const;

Q_SIGNALS:
    void currentIndexChanged();
    void desktopNoteChanged();

private:
    SettingsStore& m_store;
    DesktopShortcut& m_desktop;
};
