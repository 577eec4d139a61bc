// A Qt Widgets window with the fields a dictation lands in: a line edit and a
// text edit. Same line protocol over standard input and output as gtk-fields.c:
//   ready <xid> | focus <field> | key <name> <modifiers>
//   where <field> <x> <y> | text <field> <text> <before caret> <selection> | ok
//   focused <field or none> <0 or 1>
// Commands: where <field> | get <field> | set <field> <base64 text> <start> <end> | focused
// (start and end count UTF-16 units here, as Qt does).
#include <QApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QSocketNotifier>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray b64(const QString& text)
{
    return text.isEmpty() ? QByteArray("-") : text.toUtf8().toBase64();
}

void say(const QByteArray& line)
{
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

class Fields : public QWidget
{
public:
    Fields()
    {
        setWindowTitle(u"Qt fields"_s);
        auto* layout = new QVBoxLayout(this);
        m_entry = new QLineEdit(this);
        m_entry->setObjectName(u"entry"_s);
        m_textview = new QTextEdit(this);
        m_textview->setObjectName(u"textview"_s);
        m_textview->setAcceptRichText(false);
        layout->addWidget(m_entry);
        layout->addWidget(m_textview);
        resize(600, 320);
        move(700, 0); // beside the GTK window, so a click meant for one never lands on the other
        m_entry->installEventFilter(this);
        m_textview->installEventFilter(this);
        m_textview->viewport()->installEventFilter(this);
    }

    void command(const QByteArray& line)
    {
        const QList<QByteArray> words = line.split(' ');
        const QByteArray verb = words.value(0);
        const QByteArray name = words.value(1);
        if (verb == "focused") {
            QWidget* focus = QApplication::focusWidget();
            const QByteArray focusName = focus == m_entry ? "entry" : focus == m_textview ? "textview" : "none";
            say("focused " + focusName + ' ' + (isActiveWindow() ? '1' : '0'));
            return;
        }
        QWidget* field = name == "entry" ? static_cast<QWidget*>(m_entry)
            : name == "textview"         ? static_cast<QWidget*>(m_textview)
                                         : nullptr;
        if (!field) {
            say("error " + line);
            return;
        }
        if (verb == "where") {
            const QPoint centre = field->mapToGlobal(field->rect().center());
            say("where " + name + ' ' + QByteArray::number(centre.x()) + ' ' + QByteArray::number(centre.y()));
        } else if (verb == "get") {
            QString all;
            QString before;
            QString selected;
            if (field == m_entry) {
                all = m_entry->text();
                before = all.left(m_entry->cursorPosition());
                selected = m_entry->selectedText();
            } else {
                const QTextCursor cursor = m_textview->textCursor();
                all = m_textview->toPlainText();
                before = all.left(cursor.position());
                selected = cursor.selectedText();
            }
            say("text " + name + ' ' + b64(all) + ' ' + b64(before) + ' ' + b64(selected));
        } else if (verb == "set" && words.size() == 5) {
            const QString text = words[2] == "-" ? QString() : QString::fromUtf8(QByteArray::fromBase64(words[2]));
            const int start = words[3].toInt();
            const int end = words[4].toInt();
            if (field == m_entry) {
                m_entry->setText(text);
                m_entry->setSelection(start, end - start);
            } else {
                m_textview->setPlainText(text);
                QTextCursor cursor = m_textview->textCursor();
                cursor.setPosition(start);
                cursor.setPosition(end, QTextCursor::KeepAnchor);
                m_textview->setTextCursor(cursor);
            }
            say("ok");
        } else {
            say("error " + line);
        }
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::FocusIn && (watched == m_entry || watched == m_textview))
            say("focus " + watched->objectName().toUtf8());
        if (event->type() == QEvent::KeyPress && (watched == m_entry || watched == m_textview)) {
            const auto* key = static_cast<QKeyEvent*>(event);
            QByteArrayList modifiers;
            if (key->modifiers() & Qt::ControlModifier)
                modifiers << "control";
            if (key->modifiers() & Qt::ShiftModifier)
                modifiers << "shift";
            if (key->modifiers() & Qt::AltModifier)
                modifiers << "alt";
            if (key->modifiers() & Qt::MetaModifier)
                modifiers << "super";
            const QByteArray name = QKeySequence(key->key()).toString().toLower().toUtf8();
            say("key " + name + ' ' + (modifiers.isEmpty() ? QByteArray("none") : modifiers.join('+')));
        }
        return QWidget::eventFilter(watched, event);
    }

private:
    QLineEdit* m_entry = nullptr;
    QTextEdit* m_textview = nullptr;
};

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    Fields fields;
    fields.show();

    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &fields, [&] {
        char buffer[4096];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got <= 0) {
            QApplication::quit();
            return;
        }
        pending.append(buffer, got);
        qsizetype end = 0;
        while ((end = pending.indexOf('\n')) >= 0) {
            fields.command(pending.left(end));
            pending.remove(0, end + 1);
        }
    });
    // Announced once the window is mapped and can take the focus.
    QTimer exposed;
    exposed.setInterval(20);
    QObject::connect(&exposed, &QTimer::timeout, &fields, [&] {
        if (!fields.windowHandle() || !fields.windowHandle()->isExposed())
            return;
        exposed.stop();
        say("ready " + QByteArray::number(static_cast<qulonglong>(fields.winId())));
    });
    exposed.start();
    return app.exec();
}
