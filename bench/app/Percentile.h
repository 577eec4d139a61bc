#pragma once

#include <QList>

#include <algorithm>

// The value below which a share p (0 to 1) of the figures lie, nearest rank; 0 without any.
inline double percentile(QList<double> values, double p)
{
    if (values.isEmpty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<qsizetype>(p * double(values.size() - 1) + 0.5);
    return values[std::clamp<qsizetype>(index, 0, values.size() - 1)];
}
