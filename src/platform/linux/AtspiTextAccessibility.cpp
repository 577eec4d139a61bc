#include "platform/linux/AtspiTextAccessibility.h"

#include "platform/linux/X11Focus.h"

#include <QCoreApplication>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>

#include <atspi/atspi.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

struct GObjectUnref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <typename T> using GPtr = std::unique_ptr<T, GObjectUnref>;

struct GFree {
    void operator()(void* memory) const { g_free(memory); }
};
template <typename T> using GMem = std::unique_ptr<T, GFree>;

// True when the call behind this error failed; the error is released either way.
bool failed(GError* error)
{
    if (!error)
        return false;
    g_error_free(error);
    return true;
}

bool hasState(AtspiAccessible* accessible, AtspiStateType state)
{
    const GPtr<AtspiStateSet> states(atspi_accessible_get_state_set(accessible));
    return states && atspi_state_set_contains(states.get(), state);
}

qint64 processId(AtspiAccessible* accessible)
{
    GError* error = nullptr;
    const guint pid = atspi_accessible_get_process_id(accessible, &error);
    return failed(error) ? 0 : static_cast<qint64>(pid);
}

// Depth-first search for the focused element below a window, with a budget so a
// huge tree (a spreadsheet, a long list) cannot stall a dictation.
AtspiAccessible* findFocused(AtspiAccessible* node, int& budget)
{
    if (--budget < 0)
        return nullptr;
    if (hasState(node, ATSPI_STATE_FOCUSED))
        return static_cast<AtspiAccessible*>(g_object_ref(node));
    // Containers that manage their descendants create them on demand; the
    // element with the focus in them announces itself by event instead.
    if (hasState(node, ATSPI_STATE_MANAGES_DESCENDANTS))
        return nullptr;
    GError* error = nullptr;
    const gint count = atspi_accessible_get_child_count(node, &error);
    if (failed(error))
        return nullptr;
    for (gint i = 0; i < count && budget > 0; ++i) {
        const GPtr<AtspiAccessible> child(atspi_accessible_get_child_at_index(node, i, &error));
        if (failed(error) || !child)
            continue;
        if (AtspiAccessible* found = findFocused(child.get(), budget))
            return found;
    }
    return nullptr;
}

// The focused element among an application's windows, the active ones first
// (or the active ones alone).
AtspiAccessible* findFocusedInApplication(AtspiAccessible* application, bool activeOnly)
{
    GError* error = nullptr;
    const gint count = atspi_accessible_get_child_count(application, &error);
    if (failed(error))
        return nullptr;
    std::vector<GPtr<AtspiAccessible>> active;
    std::vector<GPtr<AtspiAccessible>> others;
    for (gint i = 0; i < count; ++i) {
        GPtr<AtspiAccessible> window(atspi_accessible_get_child_at_index(application, i, &error));
        if (failed(error) || !window)
            continue;
        if (hasState(window.get(), ATSPI_STATE_ACTIVE))
            active.push_back(std::move(window));
        else
            others.push_back(std::move(window));
    }
    int budget = 5000;
    for (auto* group : { &active, &others }) {
        if (activeOnly && group == &others)
            break;
        for (const auto& window : *group) {
            if (AtspiAccessible* found = findFocused(window.get(), budget))
                return found;
        }
    }
    return nullptr;
}

// The applications registered on the accessibility bus, optionally only the one with this
// process id; never this program itself, which cannot answer its own questions while it
// waits for the answer (on Wayland, with no X focus to name the process, it would stall
// every search until the bus gives up).
std::vector<GPtr<AtspiAccessible>> applications(qint64 pid)
{
    std::vector<GPtr<AtspiAccessible>> result;
    const GPtr<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop)
        return result;
    GError* error = nullptr;
    const gint count = atspi_accessible_get_child_count(desktop.get(), &error);
    if (failed(error))
        return result;
    for (gint i = 0; i < count; ++i) {
        GPtr<AtspiAccessible> application(atspi_accessible_get_child_at_index(desktop.get(), i, &error));
        if (failed(error) || !application)
            continue;
        const qint64 owner = processId(application.get());
        if ((pid != 0 && owner != pid) || owner == QCoreApplication::applicationPid())
            continue;
        result.push_back(std::move(application));
    }
    return result;
}

qint64 characterCount(QStringView text)
{
    qint64 characters = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (!(text[i].isLowSurrogate() && i > 0 && text[i - 1].isHighSurrogate()))
            ++characters;
    }
    return characters;
}

// The UTF-16 index at which the character with this offset starts.
qint64 utf16Index(QStringView text, qint64 characterOffset)
{
    qsizetype index = 0;
    for (qint64 characters = 0; characters < characterOffset && index < text.size(); ++characters)
        index += (text[index].isHighSurrogate() && index + 1 < text.size() && text[index + 1].isLowSurrogate()) ? 2 : 1;
    return index + std::max<qint64>(0, characterOffset - characterCount(text));
}

// AT-SPI offsets count characters, but some toolkits (Qt 6.4 among them) hand
// out and take UTF-16 indexes instead. They can only differ in a text with
// characters outside the Basic Multilingual Plane, and there the element's own
// character count shows which unit it uses.
bool countsUtf16(QStringView text, qint64 reportedCount)
{
    return reportedCount == text.size() && reportedCount != characterCount(text);
}

// Characters that cannot reach the application through AT-SPI as they are: libatspi
// takes C strings, so a NUL would end the text there, and the other C0 controls
// (but tab and line feed) are nothing a text field can show. They are left out; the
// rest of the text goes in whole.
bool isDroppedControl(QChar c)
{
    const char16_t u = c.unicode();
    return (u < 0x20 && u != u'\t' && u != u'\n') || u == 0x7f;
}

qsizetype droppedControls(QStringView text)
{
    return std::count_if(text.begin(), text.end(), isDroppedControl);
}

class AtspiElement final : public AccessibleElement
{
public:
    explicit AtspiElement(GPtr<AtspiAccessible> accessible)
        : m_accessible(std::move(accessible))
    { }

    std::optional<QString> role() override
    {
        GError* error = nullptr;
        const GMem<gchar> name(atspi_accessible_get_role_name(m_accessible.get(), &error));
        if (failed(error) || !name)
            return std::nullopt;
        return QString::fromUtf8(name.get());
    }

    ValueRead value() override
    {
        // Text comes from the Text interface; an element that has a Value interface
        // instead (a slider, a progress bar) has a value that is a number, not text.
        if (const GPtr<AtspiText> text { atspi_accessible_get_text_iface(m_accessible.get()) }) {
            if (!readText(text.get()))
                return {};
            return { true, m_text };
        }
        if (const GPtr<AtspiValue> number { atspi_accessible_get_value_iface(m_accessible.get()) }) {
            GError* error = nullptr;
            atspi_value_get_current_value(number.get(), &error);
            if (failed(error))
                return {};
            return { true, std::nullopt };
        }
        return {};
    }

    SelectionRead selection() override
    {
        const GPtr<AtspiText> text(atspi_accessible_get_text_iface(m_accessible.get()));
        if (!text || (!m_textRead && !readText(text.get())))
            return {};
        GError* error = nullptr;
        const gint selections = atspi_text_get_n_selections(text.get(), &error);
        if (failed(error))
            return {};
        qint64 start = 0;
        qint64 end = 0;
        if (selections > 0) {
            const GMem<AtspiRange> range(atspi_text_get_selection(text.get(), 0, &error));
            if (failed(error) || !range)
                return {};
            start = std::min(range->start_offset, range->end_offset);
            end = std::max(range->start_offset, range->end_offset);
        } else {
            start = end = atspi_text_get_caret_offset(text.get(), &error);
            if (failed(error))
                return {};
        }
        if (start < 0)
            return { true, std::nullopt };
        if (m_utf16Offsets) {
            start = characterCount(QStringView(m_text).first(std::min<qint64>(start, m_text.size())));
            end = characterCount(QStringView(m_text).first(std::min<qint64>(end, m_text.size())));
        }
        return { true, TextRange { start, end - start } };
    }

    bool setValue(const QString& value) override
    {
        const GPtr<AtspiEditableText> editable(atspi_accessible_get_editable_text_iface(m_accessible.get()));
        // GTK reports success for a read-only field and changes nothing, so the
        // editable state is what tells whether the write can work.
        if (!editable || !hasState(m_accessible.get(), ATSPI_STATE_EDITABLE))
            return false;
        QString text = value;
        text.removeIf(isDroppedControl);
        GError* error = nullptr;
        const gboolean written
            = atspi_editable_text_set_text_contents(editable.get(), text.toUtf8().constData(), &error);
        if (failed(error) || !written)
            return false;
        m_text = text;
        // The caller places the caret by offsets into what it asked for.
        m_requested = text.size() == value.size() ? QString() : value;
        m_textRead = false;
        return true;
    }

    bool setCaret(qint64 offset) override
    {
        const GPtr<AtspiText> text(atspi_accessible_get_text_iface(m_accessible.get()));
        if (!text)
            return false;
        GError* error = nullptr;
        qint64 target = offset;
        if (!m_requested.isEmpty()) {
            const auto before
                = QStringView(m_requested).first(std::min<qint64>(utf16Index(m_requested, offset), m_requested.size()));
            target -= droppedControls(before);
        }
        // Only a text with characters beyond the BMP needs the unit checked.
        if (characterCount(m_text) != m_text.size()) {
            const gint count = atspi_text_get_character_count(text.get(), &error);
            if (failed(error))
                return false;
            if (countsUtf16(m_text, count))
                target = utf16Index(m_text, target);
        }
        const gboolean moved = atspi_text_set_caret_offset(text.get(), static_cast<gint>(target), &error);
        return !failed(error) && moved;
    }

private:
    bool readText(AtspiText* text)
    {
        GError* error = nullptr;
        const gint count = atspi_text_get_character_count(text, &error);
        if (failed(error))
            return false;
        const GMem<gchar> contents(atspi_text_get_text(text, 0, count, &error));
        if (failed(error))
            return false;
        m_text = QString::fromUtf8(contents ? contents.get() : "");
        m_utf16Offsets = countsUtf16(m_text, count);
        m_textRead = true;
        return true;
    }

    GPtr<AtspiAccessible> m_accessible;
    QString m_text; // as last read, or as last written
    QString m_requested; // what setValue was asked to write, when controls were left out of it
    bool m_textRead = false;
    bool m_utf16Offsets = false;
};

bool accessibilityBusEnabled()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return false;
    QDBusMessage isEnabled = QDBusMessage::createMethodCall(
        u"org.a11y.Bus"_s, u"/org/a11y/bus"_s, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    isEnabled << u"org.a11y.Status"_s << u"IsEnabled"_s;
    const QDBusMessage enabled = bus.call(isEnabled, QDBus::Block, 1000);
    if (enabled.type() != QDBusMessage::ReplyMessage || enabled.arguments().isEmpty())
        return false;
    if (!qvariant_cast<QDBusVariant>(enabled.arguments().constFirst()).variant().toBool())
        return false;
    const QDBusMessage address = bus.call(
        QDBusMessage::createMethodCall(u"org.a11y.Bus"_s, u"/org/a11y/bus"_s, u"org.a11y.Bus"_s, u"GetAddress"_s),
        QDBus::Block, 1000);
    return address.type() == QDBusMessage::ReplyMessage && !address.arguments().value(0).toString().isEmpty();
}

} // namespace

struct AtspiTextAccessibility::Connection {
    ~Connection()
    {
        if (listener) {
            atspi_event_listener_deregister(listener, "object:state-changed:focused", nullptr);
            g_object_unref(listener);
        }
        if (lastFocused)
            g_object_unref(lastFocused);
    }

    // Joins the accessibility bus and starts following focus changes. Events are
    // delivered by GLib's default main context, which Qt's event loop runs.
    bool open()
    {
        if (opened)
            return true;
        const int status = atspi_init();
        if (status != 0 && status != 1)
            return false;
        opened = true;
        listener = atspi_event_listener_new(&Connection::onFocusChanged, this, nullptr);
        GError* error = nullptr;
        if (!atspi_event_listener_register(listener, "object:state-changed:focused", &error) || failed(error)) {
            // Without focus events the search of the focused application still works.
            g_object_unref(listener);
            listener = nullptr;
        }
        return true;
    }

    static void onFocusChanged(AtspiEvent* event, void* data)
    {
        auto* self = static_cast<Connection*>(data);
        if (event->source) {
            if (event->detail1 != 0) {
                if (self->lastFocused)
                    g_object_unref(self->lastFocused);
                self->lastFocused = static_cast<AtspiAccessible*>(g_object_ref(event->source));
            } else if (event->source == self->lastFocused) {
                g_object_unref(self->lastFocused);
                self->lastFocused = nullptr;
            }
        }
        g_boxed_free(ATSPI_TYPE_EVENT, event);
    }

    bool opened = false;
    AtspiEventListener* listener = nullptr;
    AtspiAccessible* lastFocused = nullptr;
};

AtspiTextAccessibility::AtspiTextAccessibility()
    : m_connection(std::make_unique<Connection>())
{
    // Following focus from the start means the first dictation already knows
    // where the focus is; an untrusted session is joined later, once enabled.
    if (accessibilityBusEnabled())
        m_connection->open();
}

AtspiTextAccessibility::~AtspiTextAccessibility() = default;

bool AtspiTextAccessibility::isTrusted()
{
    return accessibilityBusEnabled() && m_connection->open();
}

std::unique_ptr<AccessibleElement> AtspiTextAccessibility::focusedElement()
{
    if (!m_connection->open())
        return nullptr;
    const std::optional<FocusedX11Window> window = X11Focus::focusedWindow();
    const qint64 pid = window ? window->pid : 0;

    // The element the last focus event named, if it still has the focus and
    // belongs to the application whose window has the keyboard.
    if (AtspiAccessible* last = m_connection->lastFocused) {
        if (hasState(last, ATSPI_STATE_FOCUSED) && (pid == 0 || processId(last) == pid))
            return std::make_unique<AtspiElement>(
                GPtr<AtspiAccessible>(static_cast<AtspiAccessible*>(g_object_ref(last))));
    }

    // No usable event (the focus moved before we listened, or the application
    // sends none): search the windows of the focused application. With an X
    // focus we cannot attribute to a process, guessing could type into the wrong
    // application, so that case gives up. Without X at all (Wayland), only the
    // applications' active windows are searched.
    if (window && pid == 0)
        return nullptr;
    for (const auto& application : applications(pid)) {
        if (AtspiAccessible* found = findFocusedInApplication(application.get(), pid == 0))
            return std::make_unique<AtspiElement>(GPtr<AtspiAccessible>(found));
    }
    return nullptr;
}

std::optional<QString> AtspiTextAccessibility::focusedApplicationName()
{
    if (!isTrusted())
        return std::nullopt;
    AtspiAccessible* last = m_connection->lastFocused;
    if (!last || !hasState(last, ATSPI_STATE_FOCUSED))
        return std::nullopt;
    GError* error = nullptr;
    const GPtr<AtspiAccessible> application(atspi_accessible_get_application(last, &error));
    if (failed(error) || !application)
        return std::nullopt;
    gchar* name = atspi_accessible_get_name(application.get(), &error);
    if (failed(error) || !name)
        return std::nullopt;
    const QString result = QString::fromUtf8(name);
    g_free(name);
    return result;
}
