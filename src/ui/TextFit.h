#pragma once

#include <QFont>
#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// Text shortening the views need and QML's Text lacks: dropping the beginning of
// a text that wraps over several lines, so that its end stays in view.
class TextFit : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    explicit TextFit(QObject* parent = nullptr);

    // The text itself when it wraps (at word boundaries, or anywhere inside a word
    // too long for a line) into at most maxLines lines of this width in this font;
    // otherwise "…" followed by the longest tail of it that does, cut at the start
    // of a word where possible. Only the last tailLimit() characters are ever laid
    // out, so the work does not grow with the text.
    static QString headElided(const QString& text, const QFont& font, qreal width, int maxLines);
    // The number of lines the text wraps into at this width.
    static int lineCount(const QString& text, const QFont& font, qreal width);
    // How many characters at the end of a text can matter for maxLines lines of this
    // width: no character is narrower than one pixel, so no line holds more than the
    // width in characters (zero-width characters aside, which only makes the tail shown
    // shorter than it could be).
    static qsizetype tailLimit(qreal width, int maxLines);
    // Characters handed to text layout so far, by this thread's calls; for tests and benchmarks.
    static qint64 charactersLaidOut();

    Q_INVOKABLE QString elideHead(const QString& text, const QFont& font, qreal width, int maxLines) const
    {
        return headElided(text, font, width, maxLines);
    }
};
