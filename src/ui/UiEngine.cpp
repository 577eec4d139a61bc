#include "ui/UiEngine.h"

#include <QCoreApplication>
#include <QPointer>
#include <QQmlEngine>
#include <QtQml/qqmlextensionplugin.h>

// The views are a static QML module; its plugin registers their types.
Q_IMPORT_QML_PLUGIN(Quillet_UiPlugin)

using namespace Qt::StringLiterals;

QQmlEngine& UiEngine::shared()
{
    static QPointer<QQmlEngine> engine;
    if (!engine) {
        engine = new QQmlEngine(QCoreApplication::instance());
        engine->addImportPath(u"qrc:/qt/qml"_s);
    }
    return *engine;
}
