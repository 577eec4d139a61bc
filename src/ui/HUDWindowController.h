#pragma once

#include "ui/HUDPresenter.h"
#include "ui/HUDState.h"

#include <QObject>
#include <QPointer>
#include <QSize>

#include <chrono>
#include <memory>
#include <optional>

class QPropertyAnimation;
class QQuickItem;
class QQuickWindow;

// How long the capsule's animations and timed dismissals take. Tests shorten them.
struct HUDTiming {
    std::chrono::milliseconds fadeIn { 150 };
    std::chrono::milliseconds fadeOut { 200 };
    std::chrono::milliseconds errorDismissal { 3000 };
    std::chrono::milliseconds successDismissal { 1200 };
};

// The floating capsule of one dictation: owns its HUDState and, from the first
// show() on, one window that shows HUDView.qml on that state.
//
// The window is an override-redirect X11 window (Qt::X11BypassWindowManagerHint)
// that does not accept focus: no window manager ever hands it the keyboard focus,
// it shows on every workspace and above full-screen windows, and clicks on its
// tone buttons leave the focus where the user's text goes. It is 320 wide and 56
// high, taller when its content needs it (the tone picker), growing upwards from
// its bottom edge; HUDView draws the capsule inside it.
class HUDWindowController : public QObject, public HUDPresenter
{
    Q_OBJECT

public:
    static constexpr QSize panelSize { 320, 56 };

    explicit HUDWindowController(QObject* parent = nullptr);
    explicit HUDWindowController(HUDTiming timing, QObject* parent = nullptr);
    ~HUDWindowController() override;

    HUDState& hudState() override { return m_state; }
    void show(const HUDMode& mode) override;
    void showError(const QString& message) override;
    void showSuccess(const QString& text, std::optional<Tone> tone) override;

    // Fades the window out, then hides it; it stays for the next show().
    void dismiss() override;
    // Moves the window to the bottom centre of the screen under the pointer.
    void positionAtBottom();

    // The window; null until the first show().
    QQuickWindow* window() const;
    // HUDView's root item; null until the first show().
    QQuickItem* rootItem() const { return m_root.get(); }

    // Creates the shared QML engine and loads the compiled views now rather than
    // on the first show(), so that even the first dictation's capsule comes up
    // quickly. False when the views do not load.
    static bool preload();

    // Whether new windows draw a translucent, shadowed capsule (a compositing
    // manager runs) or an opaque one cut to the capsule's shape. Asked of the
    // platform unless set here.
    static void setTranslucentOverride(std::optional<bool> translucent);

Q_SIGNALS:
    // The window was hidden at the end of a dismissal.
    void dismissed();

private:
    void createWindow();
    void fadeIn();
    void scheduleDismissal(std::chrono::milliseconds delay);
    void fitWindowToContent();

private Q_SLOTS:
    // Cuts an opaque window to the capsule; connected to HUDView's capsuleRect.
    void updateWindowShape();

private:
    HUDTiming m_timing;
    HUDState m_state;
    bool m_translucent = false;
    // Declared in this order so the view's items go before the window they live in.
    std::unique_ptr<QQuickWindow> m_window;
    std::unique_ptr<QQuickItem> m_root;
    QPointer<QPropertyAnimation> m_fade;
};
