#include "ui/TextFit.h"

#include <QTextLayout>

#include <algorithm>
#include <cmath>

namespace {

constexpr QChar ellipsis(0x2026);

thread_local qint64 laidOut = 0;

} // namespace

qint64 TextFit::charactersLaidOut()
{
    return laidOut;
}

qsizetype TextFit::tailLimit(qreal width, int maxLines)
{
    if (maxLines < 1 || width <= 0)
        return 0;
    return qsizetype(maxLines) * (qsizetype(std::ceil(width)) + 1);
}

TextFit::TextFit(QObject* parent)
    : QObject(parent)
{ }

int TextFit::lineCount(const QString& text, const QFont& font, qreal width)
{
    laidOut += text.size();
    QTextLayout layout(text, font);
    QTextOption option;
    // The same wrapping as the views' Text items (Text.Wrap).
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    option.setUseDesignMetrics(true);
    layout.setTextOption(option);
    layout.beginLayout();
    int lines = 0;
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(width);
        ++lines;
    }
    layout.endLayout();
    return lines;
}

QString TextFit::headElided(const QString& whole, const QFont& font, qreal width, int maxLines)
{
    if (maxLines < 1 || width <= 0)
        return QString();
    // A partial of a megabyte shows its last words all the same: only its end is looked at.
    const qsizetype limit = tailLimit(width, maxLines);
    QStringView text(whole);
    qsizetype first = 1;
    if (text.size() > limit) {
        qsizetype start = text.size() - limit;
        if (text[start].isLowSurrogate())
            ++start; // never half a character
        text = text.mid(start);
        // The cut itself is a word start when a space came just before it.
        first = whole[start - 1].isSpace() ? 0 : 1;
    } else if (lineCount(whole, font, width) <= maxLines) {
        return whole;
    }

    const auto fits
        = [&](qsizetype from) { return lineCount(ellipsis + text.mid(from).toString(), font, width) <= maxLines; };

    // Where words start, after the first: the cut points that keep whole words.
    QList<qsizetype> wordStarts;
    if (first == 0 && !text.isEmpty() && !text[0].isSpace())
        wordStarts.append(0);
    for (qsizetype i = 1; i < text.size(); ++i) {
        if (!text[i].isSpace() && text[i - 1].isSpace())
            wordStarts.append(i);
    }
    // Dropping more words never needs more lines, so the first start that fits
    // can be found by bisection.
    const auto firstFit
        = std::partition_point(wordStarts.cbegin(), wordStarts.cend(), [&](qsizetype start) { return !fits(start); });
    if (firstFit != wordStarts.cend())
        return ellipsis + text.mid(*firstFit).toString();

    // Even the last word alone is too long: keep as many of its final characters as fit.
    qsizetype low = wordStarts.isEmpty() ? 0 : wordStarts.last();
    qsizetype high = text.size();
    while (low < high) {
        const qsizetype middle = low + (high - low) / 2;
        if (fits(middle))
            high = middle;
        else
            low = middle + 1;
    }
    return ellipsis + text.mid(low).toString();
}
