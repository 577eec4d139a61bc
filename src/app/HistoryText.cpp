#include "app/HistoryText.h"

using namespace Qt::StringLiterals;

QString HistoryText::escapeControls(const QString& text)
{
    QString out;
    out.reserve(text.size());
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (u == u'\n' || u == u'\t') {
            out += c;
        } else if (u == 0) {
            out += u"\\0"_s;
        } else if (u == 0x1b) {
            out += u"\\e"_s;
        } else if (u == u'\r') {
            out += u"\\r"_s;
        } else if (u < 0x20 || u == 0x7f || (u >= 0x80 && u < 0xa0)) {
            // C0 and C1 controls (0x9b is a one-character escape sequence on some terminals).
            out += u"\\x"_s + QString::number(u, 16).rightJustified(2, u'0');
        } else if (u == 0x2028 || u == 0x2029 || u == 0x202e || u == 0x2066 || u == 0x2067 || u == 0x2068 || u == 0x202a
            || u == 0x202b || u == 0x202d || u == 0x202c || u == 0x2069) {
            // Line separators and direction overrides rearrange what the terminal shows.
            out += u"\\u"_s + QString::number(u, 16);
        } else {
            out += c;
        }
    }
    return out;
}

QByteArray HistoryText::forTerminal(const QList<HistoryEntry>& entries)
{
    QByteArray out;
    for (const HistoryEntry& entry : entries) {
        const QString when = entry.date.toLocalTime().toString(u"yyyy-MM-dd HH:mm:ss"_s);
        // Continuation lines are indented so every entry still starts at the left edge.
        QString text = escapeControls(entry.text);
        text.replace(u'\n', u"\n                     "_s);
        out += when.toUtf8();
        out += "  ";
        out += text.toUtf8();
        out += '\n';
    }
    return out;
}
