#pragma once

#include <QObject>
#include <QSize>
#include <QVariantMap>

#include <memory>

class QQuickItem;
class QQuickView;
class QQuickWindow;

// An ordinary titled window of a fixed size around one view of the Quillet.Ui module:
// closable, minimisable, not resizable, centred on the primary screen when first
// shown. Unlike the capsule it takes the keyboard focus when shown.
class FormWindow : public QObject
{
    Q_OBJECT

public:
    ~FormWindow() override;

    // Shows the window (centred the first time), raises it and asks for the focus.
    void showAndRaise();
    // Closes the window as its close button would.
    void close();
    bool isVisible() const;

    QQuickWindow* window() const;
    // The view's root item; null when the view failed to load.
    QQuickItem* rootItem() const;

Q_SIGNALS:
    // The window closed: its close button, close(), or the window system.
    void closed();
    // The window came on screen.
    void shown();

protected:
    FormWindow(const QString& title, QSize size, QObject* parent);
    // Makes `viewName` (e.g. "SettingsView") on the program's QML engine with these
    // initial properties. False, with a warning, when it does not load.
    bool load(const QString& viewName, const QVariantMap& properties);

private:
    std::unique_ptr<QQuickView> m_view;
    bool m_placed = false;
};
