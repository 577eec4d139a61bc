#include "ui/HUDPlacement.h"

#include <QtTest>

class TestHUDPlacement : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void bottomCentreOfTheScreenUnderThePointer_data()
    {
        QTest::addColumn<QList<ScreenArea>>("screens");
        QTest::addColumn<QPoint>("pointer");
        QTest::addColumn<qsizetype>("primary");
        QTest::addColumn<QPoint>("origin");

        // A 1920x1080 screen with a 32 px panel at the bottom, a 1280x1024 one to its right
        // with a 40 px panel on top, and a third one below the first.
        const ScreenArea left { QRect(0, 0, 1920, 1080), QRect(0, 0, 1920, 1048) };
        const ScreenArea right { QRect(1920, 0, 1280, 1024), QRect(1920, 40, 1280, 984) };
        const ScreenArea below { QRect(0, 1080, 1600, 900), QRect(0, 1080, 1600, 900) };
        const QList<ScreenArea> screens { left, right, below };

        // x = middle of the usable area - 160; y = its bottom edge - 24 - 56.
        QTest::newRow("one screen") << QList<ScreenArea> { left } << QPoint(100, 100) << qsizetype(0)
                                    << QPoint(800, 1048 - 24 - 56);
        QTest::newRow("pointer on the primary") << screens << QPoint(1919, 1079) << qsizetype(0) << QPoint(800, 968);
        QTest::newRow("pointer on a secondary screen")
            << screens << QPoint(2000, 500) << qsizetype(0) << QPoint(1920 + 640 - 160, 40 + 984 - 24 - 56);
        QTest::newRow("pointer on the third screen")
            << screens << QPoint(10, 1500) << qsizetype(0) << QPoint(800 - 160, 1080 + 900 - 80);
        QTest::newRow("pointer outside every screen: the primary")
            << screens << QPoint(3500, 1500) << qsizetype(1) << QPoint(2400, 944);
        QTest::newRow("pointer outside, first screen primary")
            << screens << QPoint(-5, -5) << qsizetype(0) << QPoint(800, 968);
        QTest::newRow("no screens: the empty rectangle at the origin")
            << QList<ScreenArea> {} << QPoint(10, 10) << qsizetype(-1) << QPoint(-160, -80);
        QTest::newRow("no primary and the pointer nowhere")
            << screens << QPoint(-5, -5) << qsizetype(-1) << QPoint(-160, -80);
    }
    void bottomCentreOfTheScreenUnderThePointer()
    {
        QFETCH(QList<ScreenArea>, screens);
        QFETCH(QPoint, pointer);
        QFETCH(qsizetype, primary);
        QFETCH(QPoint, origin);
        QCOMPARE(hudOrigin(screens, pointer, QSize(320, 56), primary), origin);
    }

    void firstScreenWinsWhereScreensOverlap()
    {
        // Mirrored outputs: both hold the pointer; the first in the list is taken.
        const QList<ScreenArea> screens { { QRect(0, 0, 1000, 800), QRect(0, 0, 1000, 760) },
            { QRect(0, 0, 1400, 900), QRect(0, 0, 1400, 900) } };
        QCOMPARE(hudOrigin(screens, QPoint(50, 50), QSize(320, 56), 1), QPoint(340, 680));
    }

    void sizeOfThePanelIsItsOwn()
    {
        // A taller window (the tone picker) still keeps its bottom 24 px above the edge.
        const QList<ScreenArea> screens { { QRect(0, 0, 1920, 1080), QRect(0, 0, 1920, 1080) } };
        const QPoint origin = hudOrigin(screens, QPoint(1, 1), QSize(320, 110), 0);
        QCOMPARE(origin.y() + 110, 1080 - hudBottomMargin);
        QCOMPARE(origin.x(), 800);
    }
};

QTEST_GUILESS_MAIN(TestHUDPlacement)
#include "tst_hudplacement.moc"
