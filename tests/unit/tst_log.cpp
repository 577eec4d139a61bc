#include "StdoutCapture.h"
#include "services/Log.h"

#include <QtTest>

#include <thread>

using namespace Qt::StringLiterals;

class TestLog : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { Log::makeStdoutUnbuffered(); }
    void everySymbol()
    {
        StdoutCapture out;
        Log::write(Log::Symbol::Success, u"one");
        Log::write(Log::Symbol::Failure, u"two");
        Log::write(Log::Symbol::Warning, u"three");
        Log::write(Log::Symbol::Connecting, u"four");
        Log::write(Log::Symbol::Capture, u"five");
        Log::write(Log::Symbol::EndOfTranscript, u"six");
        Log::write(Log::Symbol::Refreshed, u"seven");
        Log::write(Log::Symbol::Key, u"eight");
        QCOMPARE(out.lines(),
            (QStringList { u"✅ [Quillet] one"_s, u"✗ [Quillet] two"_s, u"⚠️ [Quillet] three"_s,
                u"🔌 [Quillet] four"_s, u"🎤 [Quillet] five"_s, u"🏁 [Quillet] six"_s, u"🔄 [Quillet] seven"_s,
                u"🔑 [Quillet] eight"_s }));
    }
    void continuationLinesAreIndentedByThreeBlanks()
    {
        StdoutCapture out;
        Log::write(Log::Symbol::Failure, u"insertion failed\nrole: text\nvalue: none");
        QCOMPARE(out.text(), u"✗ [Quillet] insertion failed\n   role: text\n   value: none\n"_s);
    }
    void insertionSymbolAndStandaloneContinuation()
    {
        StdoutCapture out;
        Log::write(Log::Symbol::Insertion, u"TextInserter.insert(3 chars)");
        Log::writeContinuation(u"\u2192 AX insert succeeded");
        QCOMPARE(out.text(), u"✏️ [Quillet] TextInserter.insert(3 chars)\n   → AX insert succeeded\n"_s);
    }
    void linesFromTwoThreadsNeverInterleave()
    {
        StdoutCapture out;
        auto writer = [](Log::Symbol symbol, const QString& text) {
            for (int i = 0; i < 500; ++i)
                Log::write(symbol, text);
        };
        const QString a(200, u'a');
        const QString b(200, u'b');
        std::thread first(writer, Log::Symbol::Capture, a);
        std::thread second(writer, Log::Symbol::Key, b);
        first.join();
        second.join();
        const QStringList lines = out.lines();
        QCOMPARE(lines.size(), 1000);
        for (const QString& line : lines)
            QVERIFY2(line == u"🎤 [Quillet] "_s + a || line == u"🔑 [Quillet] "_s + b, qPrintable(line.left(40)));
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
