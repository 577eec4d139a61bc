#include "ui/HUDPlacement.h"

QPoint hudOrigin(const QList<ScreenArea>& screens, QPoint pointer, QSize panel, qsizetype primaryIndex)
{
    QRect area;
    const auto under = std::find_if(
        screens.cbegin(), screens.cend(), [&](const ScreenArea& screen) { return screen.geometry.contains(pointer); });
    if (under != screens.cend())
        area = under->available;
    else if (primaryIndex >= 0 && primaryIndex < screens.size())
        area = screens[primaryIndex].available;
    else
        area = QRect(0, 0, 0, 0);

    // Twice the centre first, so odd widths round the same way on every screen.
    const int x = (2 * area.x() + area.width() - panel.width()) / 2;
    const int y = area.y() + area.height() - hudBottomMargin - panel.height();
    return { x, y };
}
