#pragma once

#include "services/SettingsStore.h"

#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

// The hotkey choices as a picker shows them, bound to the settings store: picking
// one writes it at once, and a change made elsewhere moves the selection.
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

public:
    explicit HotkeySelection(SettingsStore& store, QObject* parent = nullptr);

    QStringList names() const;
    int currentIndex() const;
    // Indexes outside the list are ignored.
    void setCurrentIndex(int index);
    QString currentName() const;
    static QString keyboardNote();

Q_SIGNALS:
    void currentIndexChanged();

private:
    SettingsStore& m_store;
};
