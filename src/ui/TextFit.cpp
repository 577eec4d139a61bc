#include "ui/TextFit.h"

#include <QTextLayout>

#include <algorithm>

namespace {

constexpr QChar ellipsis(0x2026);

} // namespace

TextFit::TextFit(QObject* parent)
    : QObject(parent)
{ }

int TextFit::lineCount(const QString& text, const QFont& font, qreal width)
{
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

QString TextFit::headElided(const QString& text, const QFont& font, qreal width, int maxLines)
{
    if (maxLines < 1 || width <= 0)
        return QString();
    if (lineCount(text, font, width) <= maxLines)
        return text;

    const auto fits = [&](qsizetype from) { return lineCount(ellipsis + text.mid(from), font, width) <= maxLines; };

    // Where words start, after the first: the cut points that keep whole words.
    QList<qsizetype> wordStarts;
    for (qsizetype i = 1; i < text.size(); ++i) {
        if (!text[i].isSpace() && text[i - 1].isSpace())
            wordStarts.append(i);
    }
    // Dropping more words never needs more lines, so the first start that fits
    // can be found by bisection.
    const auto firstFit
        = std::partition_point(wordStarts.cbegin(), wordStarts.cend(), [&](qsizetype start) { return !fits(start); });
    if (firstFit != wordStarts.cend())
        return ellipsis + text.mid(*firstFit);

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
    return ellipsis + text.mid(low);
}
