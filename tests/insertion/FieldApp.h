#pragma once

#include <QByteArray>
#include <QList>
#include <QPoint>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <optional>

// One of the test windows (apps/gtk-fields.c, apps/qt-fields.cpp), driven over its
// standard input and read back over its standard output. Every wait here keeps
// this process's event loop running: the window may be asking us for the
// clipboard at that very moment.
class FieldApp
{
public:
    explicit FieldApp(QString program);
    ~FieldApp();
    FieldApp(const FieldApp&) = delete;
    FieldApp& operator=(const FieldApp&) = delete;

    // Sets a variable for the window's process (GDK_BACKEND=wayland, NO_AT_BRIDGE=1); before start().
    void setEnvironmentVariable(const QString& name, const QString& value);
    // Starts the window and waits until it is on screen.
    bool start();
    // Gives the window the X focus and clicks into the field, as a user would,
    // and waits until the field reports the focus. A native Wayland window (started
    // with GDK_BACKEND=wayland) has the keyboard already; the field is focused within it.
    bool focus(const QString& field);

    // Whether this field is the window's focus widget and the window has the keyboard.
    bool hasFocus(const QString& field);

    struct Content {
        QString text;
        QString beforeCaret;
        QString selected;
    };
    // What the field shows now.
    std::optional<Content> content(const QString& field);
    // Replaces the field's text and selects [start, end) in the toolkit's own offsets.
    bool set(const QString& field, const QString& text, int start, int end);
    // Has the window put a picture, and nothing else, on the clipboard (GTK window only).
    bool copyImage();
    // The slider's value (GTK window only).
    std::optional<double> sliderValue();
    // Waits until the field holds exactly this text; the content seen last either way.
    std::optional<Content> waitForText(const QString& field, const QString& text, int timeoutMs = 5000);

    // Lines the window wrote on its own ("key ...", "focus ...", "unfocus ..."), oldest first; forgets them.
    QStringList takeEvents();

private:
    std::optional<QByteArray> request(const QByteArray& command, const QByteArray& replyPrefix);
    std::optional<QByteArray> waitForLine(const QByteArray& prefix, int timeoutMs);
    void readLines();

    QString m_program;
    QProcess m_process;
    QByteArray m_pending;
    QList<QByteArray> m_lines;
    QString m_windowId;
};

namespace Desktop {

// Runs a tool to its end while the event loop keeps running; its exit code, or -1.
int run(const QString& program, const QStringList& arguments, QByteArray* output = nullptr,
    const QByteArray& input = QByteArray());
// Puts this data on the CLIPBOARD selection through xclip, owned by xclip from now on.
bool setClipboard(const QByteArray& data, const QString& mimeType);
// The CLIPBOARD's plain text as another client sees it; absent when there is none.
std::optional<QString> clipboardText();
// The kinds of data the CLIPBOARD offers to another client; empty when it has no owner.
QStringList clipboardTargets();

} // namespace Desktop
