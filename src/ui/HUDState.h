#pragma once

#include "ui/HUDMode.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

// The model of one capsule: what it shows and the text recognised so far. Written
// by the dictation session, read by the views. A write of a value equal to the
// current one (by HUDMode's own equality, or string equality) is stored without
// notifying anyone.
class HUDState : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("A capsule's state comes from its HUDWindowController")
    // What the views bind to; every one of them follows `mode`.
    Q_PROPERTY(HUDMode::Kind kind READ kind NOTIFY modeChanged)
    Q_PROPERTY(QString toneLabel READ toneLabel NOTIFY modeChanged)
    Q_PROPERTY(QString message READ message NOTIFY modeChanged)
    Q_PROPERTY(QString partialText READ partialText WRITE setPartialText NOTIFY partialTextChanged)
    Q_PROPERTY(QStringList toneLabels READ toneLabels CONSTANT)
    Q_PROPERTY(bool canDismissTonePicker READ canDismissTonePicker NOTIFY modeChanged)

public:
    explicit HUDState(QObject* parent = nullptr);

    const HUDMode& mode() const { return m_mode; }
    void setMode(HUDMode mode);

    const QString& partialText() const { return m_partialText; }
    void setPartialText(const QString& text);

    HUDMode::Kind kind() const { return m_mode.kind(); }
    // The display name of the mode's tone; empty when it has none.
    QString toneLabel() const;
    const QString& message() const { return m_mode.message(); }
    // Every tone's display name, in picker order.
    QStringList toneLabels() const;

    // The tone picker's button at this index (picker order) was pressed. Calls the
    // handler of the current tonePicker mode; does nothing in any other mode.
    Q_INVOKABLE void selectTone(int index);
    // The tone picker's close control was used. Calls the handler of the current
    // tonePicker mode; does nothing in any other mode.
    Q_INVOKABLE void dismissTonePicker();
    // Whether the current mode is a tone picker that can be closed.
    bool canDismissTonePicker() const;

    // Whether observers hear of a change from old to new.
    static bool shouldNotifyObservers(const HUDMode& oldMode, const HUDMode& newMode) { return !(oldMode == newMode); }

Q_SIGNALS:
    void modeChanged();
    void partialTextChanged();

private:
    HUDMode m_mode = HUDMode::dictating();
    QString m_partialText;
};
