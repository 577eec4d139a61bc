#include "ui/FormWindow.h"

#include "ui/UiEngine.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>

using namespace Qt::StringLiterals;

FormWindow::FormWindow(const QString& title, QSize size, QObject* parent)
    : QObject(parent)
    , m_view(std::make_unique<QQuickView>(&UiEngine::shared(), nullptr))
{
    m_view->setTitle(title);
    m_view->setFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint
        | Qt::WindowMinimizeButtonHint);
    m_view->setResizeMode(QQuickView::SizeRootObjectToView);
    m_view->resize(size);
    m_view->setMinimumSize(size);
    m_view->setMaximumSize(size);
    connect(m_view.get(), &QWindow::visibleChanged, this, [this](bool visible) {
        if (visible)
            Q_EMIT shown();
        else
            Q_EMIT closed();
    });
}

FormWindow::~FormWindow() = default;

bool FormWindow::load(const QString& viewName, const QVariantMap& properties)
{
    m_view->setInitialProperties(properties);
    m_view->setSource(QUrl(u"qrc:/qt/qml/Quillet/Ui/"_s + viewName + u".qml"_s));
    if (m_view->status() != QQuickView::Ready || !m_view->rootObject()) {
        for (const QQmlError& error : m_view->errors())
            qWarning("%s", qPrintable(error.toString()));
        return false;
    }
    return true;
}

void FormWindow::showAndRaise()
{
    if (!m_placed) {
        if (QScreen* screen = QGuiApplication::primaryScreen()) {
            const QRect area = screen->availableGeometry();
            m_view->setPosition(area.center() - QPoint(m_view->width() / 2, m_view->height() / 2));
        }
        m_placed = true;
    }
    m_view->show();
    m_view->raise();
    m_view->requestActivate();
}

void FormWindow::close()
{
    m_view->close();
}

bool FormWindow::isVisible() const
{
    return m_view->isVisible();
}

QQuickWindow* FormWindow::window() const
{
    return m_view.get();
}

QQuickItem* FormWindow::rootItem() const
{
    return m_view->rootObject();
}
