#pragma once

#include <QList>
#include <QPoint>
#include <QRect>
#include <QSize>

// One screen as the capsule's placement sees it, in the desktop's coordinates.
struct ScreenArea {
    QRect geometry; // the whole screen
    QRect available; // what panels and docks leave free
};

// How far the capsule's bottom edge stays above the bottom of the usable area.
inline constexpr int hudBottomMargin = 24;

// Where the capsule's top-left corner goes: centred horizontally on the usable
// area of the first screen whose geometry holds the pointer (the primary screen
// when none does), its bottom edge hudBottomMargin above that area's bottom edge.
// Without any screen (or a primary index that names none) the area is the empty
// rectangle at the origin.
QPoint hudOrigin(const QList<ScreenArea>& screens, QPoint pointer, QSize panel, qsizetype primaryIndex);
