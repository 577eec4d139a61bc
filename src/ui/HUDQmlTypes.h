#pragma once

#include "ui/HUDMode.h"

#include <QObject>
#include <QtQml/qqmlregistration.h>

// Makes HUDMode's Kind values reachable from the views as HUDMode.Kind.dictating,
// HUDMode.Kind.tonePicker, ... without turning HUDMode itself into a QML type.
namespace HUDModeForeign {
Q_NAMESPACE
QML_FOREIGN_NAMESPACE(HUDMode)
QML_NAMED_ELEMENT(HUDMode)
} // namespace HUDModeForeign
