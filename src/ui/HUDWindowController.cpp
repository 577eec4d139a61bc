#include "ui/HUDWindowController.h"

#include "platform/DesktopSession.h"
#include "platform/WindowCompositing.h"
#include "services/Log.h"
#include "ui/HUDPlacement.h"
#include "ui/UiEngine.h"

#include <QCoreApplication>
#include <QCursor>
#include <QGuiApplication>
#include <QMetaMethod>
#include <QPainterPath>
#include <QPropertyAnimation>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QRegion>
#include <QScreen>
#include <QTimer>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

std::optional<bool>& translucentOverride()
{
    static std::optional<bool> value;
    return value;
}

// HUDView compiled once on the program's one engine: every dictation makes a new
// controller, and its capsule must come up at once. The component goes with the engine.
QQmlComponent* hudComponent()
{
    static QPointer<QQmlComponent> component;
    if (component)
        return component;
    QQmlEngine* engine = &UiEngine::shared();
    component = new QQmlComponent(
        engine, QUrl(u"qrc:/qt/qml/Quillet/Ui/HUDView.qml"_s), QQmlComponent::PreferSynchronous, engine);
    if (component->isError()) {
        qWarning("HUDView.qml does not load: %s", qPrintable(component->errorString()));
        return nullptr;
    }
    return component;
}

} // namespace

HUDWindowController::HUDWindowController(QObject* parent)
    : HUDWindowController(HUDTiming {}, parent)
{ }

HUDWindowController::HUDWindowController(HUDTiming timing, QObject* parent)
    : QObject(parent)
    , m_timing(timing)
{ }

HUDWindowController::~HUDWindowController() = default;

bool HUDWindowController::preload()
{
    return hudComponent() != nullptr;
}

void HUDWindowController::setTranslucentOverride(std::optional<bool> translucent)
{
    translucentOverride() = translucent;
}

QQuickWindow* HUDWindowController::window() const
{
    return m_window.get();
}

void HUDWindowController::show(const HUDMode& mode)
{
    m_state.setMode(mode);
    m_state.setPartialText(QString());
    if (!DesktopSession::canShowUnfocusedWindows()) {
        // A native Wayland window is focused by the compositor, whatever its flags say: the
        // text would go to the capsule instead of the application. Dictation goes on without it.
        static bool told = false;
        if (!std::exchange(told, true))
            Log::write(Log::Symbol::Warning,
                u"no capsule on this desktop: a native Wayland window would take the keyboard focus (start Xwayland "
                "to see it)"_s);
        return;
    }
    if (!m_window)
        createWindow();
    if (!m_window)
        return;
    positionAtBottom();
    // Shown without activation: the window does not accept focus and we never ask for it.
    m_window->show();
    m_window->raise();
    fadeIn();
}

void HUDWindowController::showError(const QString& message)
{
    m_state.setMode(HUDMode::error(message));
    scheduleDismissal(m_timing.errorDismissal);
}

void HUDWindowController::showSuccess(const QString& text, std::optional<Tone> tone)
{
    // The capsule names what happened, never the text itself.
    Q_UNUSED(text);
    m_state.setMode(HUDMode::success(tone));
    scheduleDismissal(m_timing.successDismissal);
}

void HUDWindowController::scheduleDismissal(std::chrono::milliseconds delay)
{
    // The timer's context object is the weak hold: if this controller is gone
    // by then, nothing runs. A later show() does not cancel it on purpose: the
    // capsule of a finished dictation goes away on time whatever came after.
    QTimer::singleShot(delay, this, [this] { dismiss(); });
}

void HUDWindowController::dismiss()
{
    if (!m_window)
        return;
    if (m_fade)
        m_fade->stop();
    auto* fade = new QPropertyAnimation(m_window.get(), "opacity", this);
    fade->setDuration(int(m_timing.fadeOut.count()));
    fade->setEndValue(0.0);
    // The animation belongs to this controller, so its end never outlives it.
    connect(fade, &QPropertyAnimation::finished, this, [this] {
        m_window->hide();
        Q_EMIT dismissed();
    });
    m_fade = fade;
    fade->start(QAbstractAnimation::DeleteWhenStopped);
}

void HUDWindowController::fadeIn()
{
    // Stopping a fade-out also drops its hide: this show() wins.
    if (m_fade)
        m_fade->stop();
    // A new window starts at full opacity, so its first appearance is immediate;
    // after a dismissal this fades up from 0.
    auto* fade = new QPropertyAnimation(m_window.get(), "opacity", this);
    fade->setDuration(int(m_timing.fadeIn.count()));
    fade->setEndValue(1.0);
    m_fade = fade;
    fade->start(QAbstractAnimation::DeleteWhenStopped);
}

void HUDWindowController::positionAtBottom()
{
    if (!m_window)
        return;
    QList<ScreenArea> areas;
    const QList<QScreen*> screens = QGuiApplication::screens();
    for (QScreen* screen : screens)
        areas.append({ screen->geometry(), screen->availableGeometry() });
    const qsizetype primary = screens.indexOf(QGuiApplication::primaryScreen());
    m_window->setPosition(hudOrigin(areas, QCursor::pos(), m_window->size(), primary));
}

void HUDWindowController::createWindow()
{
    QQmlComponent* component = hudComponent();
    if (!component)
        return;

    m_translucent = translucentOverride().value_or(WindowCompositing::isActive());
    auto window = std::make_unique<QQuickWindow>();
    window->setFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus
        | Qt::X11BypassWindowManagerHint);
    window->setTitle(u"Quillet"_s);
    if (m_translucent) {
        QSurfaceFormat format = window->format();
        format.setAlphaBufferSize(8);
        window->setFormat(format);
        window->setColor(Qt::transparent);
    } else {
        // Whatever lies outside the capsule is cut away by the window's shape.
        window->setColor(Qt::white);
    }
    window->resize(panelSize);

    QObject* object = component->createWithInitialProperties(
        { { u"hudState"_s, QVariant::fromValue(&m_state) }, { u"translucent"_s, m_translucent } });
    auto* root = qobject_cast<QQuickItem*>(object);
    if (!root) {
        qWarning("HUDView.qml did not make an item: %s", qPrintable(component->errorString()));
        delete object;
        return;
    }
    root->setParentItem(window->contentItem());
    m_window = std::move(window);
    m_root.reset(root);

    connect(m_root.get(), &QQuickItem::implicitHeightChanged, this, &HUDWindowController::fitWindowToContent);
    // The capsule's rectangle is a QML property; follow it through its notify signal.
    const QMetaObject* meta = m_root->metaObject();
    const QMetaProperty capsule = meta->property(meta->indexOfProperty("capsuleRect"));
    const QMetaMethod follow = metaObject()->method(metaObject()->indexOfMethod("updateWindowShape()"));
    if (capsule.hasNotifySignal() && follow.isValid())
        connect(m_root.get(), capsule.notifySignal(), this, follow);
    fitWindowToContent();
}

void HUDWindowController::fitWindowToContent()
{
    if (!m_window || !m_root)
        return;
    const int height = std::max(panelSize.height(), int(std::ceil(m_root->implicitHeight())));
    m_root->setSize(QSizeF(panelSize.width(), height));
    if (m_window->height() != height) {
        // Grow or shrink upwards: the bottom edge keeps its place above the screen's edge.
        const int bottom = m_window->y() + m_window->height();
        m_window->setGeometry(m_window->x(), bottom - height, panelSize.width(), height);
    }
    updateWindowShape();
}

void HUDWindowController::updateWindowShape()
{
    if (!m_window || !m_root || m_translucent)
        return;
    // No compositor: cut the opaque window to the capsule, corners included.
    const QRectF capsule = m_root->property("capsuleRect").toRectF();
    const qreal radius = m_root->property("capsuleRadius").toReal();
    if (capsule.isEmpty())
        return;
    QPainterPath path;
    path.addRoundedRect(capsule, radius, radius);
    m_window->setMask(QRegion(path.toFillPolygon().toPolygon()));
}
