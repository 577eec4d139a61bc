// Rule-engine clean-up and rewrite of a 200-word dictated transcript.
#include "RuleTextEngine.h"

#include <benchmark/benchmark.h>

#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace {

// 200 words of unpunctuated recogniser output with fillers and stumbles.
QString transcript()
{
    const QString sentence = u"um so i i think the the quarterly report is uh mostly done but we still need "
                             "to check the numbers with kubernetes and postgresql you know before friday "_s;
    QString text;
    while (text.split(u' ', Qt::SkipEmptyParts).size() < 200)
        text += sentence;
    QStringList words = text.split(u' ', Qt::SkipEmptyParts);
    return words.mid(0, 200).join(u' ');
}

const QStringList dictionary { u"Kubernetes"_s, u"PostgreSQL"_s, u"Friday"_s, u"Quillet"_s };

void cleanup200Words(benchmark::State& state)
{
    const QString text = transcript();
    for (auto _ : state)
        benchmark::DoNotOptimize(RuleTextEngine::cleanup(text, dictionary));
    state.SetLabel("200 words, 4 dictionary terms");
}
BENCHMARK(cleanup200Words)->Unit(benchmark::kMicrosecond);

void rewrite200Words(benchmark::State& state)
{
    const QString text = transcript();
    const Tone tone = allTones.at(size_t(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(RuleTextEngine::rewrite(text, tone, dictionary));
    state.SetLabel(toneName(tone).toStdString());
}
BENCHMARK(rewrite200Words)->DenseRange(0, 5)->Unit(benchmark::kMicrosecond);

// Texts built to be slow, at a quarter of the text limit and at the limit (65,536
// characters): with time linear in the text, the second figure is about four times the first.
void hostileText(benchmark::State& state)
{
    const int which = int(state.range(0));
    const qsizetype chars = qsizetype(state.range(1));
    QString text;
    QStringList terms;
    std::optional<Tone> tone;
    const char* name = "";
    switch (which) {
    case 0:
        name = "a + dots, term c++";
        text = u"a"_s + QString(chars - 1, u'.');
        terms = { u"c++"_s };
        break;
    case 1:
        name = "(um repeated";
        text = u"(um "_s.repeated(chars / 4);
        break;
    case 2:
        name = "2,000 terms sharing a first word";
        text = u"quillet term1999 "_s.repeated(chars / 17);
        for (int i = 0; i < 2000; ++i)
            terms << u"quillet term%1"_s.arg(i);
        break;
    default:
        name = "firm, (maybe repeated";
        text = u"(maybe "_s.repeated(chars / 7);
        tone = Tone::Firm;
        break;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(
            tone ? RuleTextEngine::rewrite(text, *tone, terms) : RuleTextEngine::cleanup(text, terms));
    state.SetLabel(std::string(name) + ", " + std::to_string(text.size()) + " chars");
}
BENCHMARK(hostileText)->ArgsProduct({ { 0, 1, 2, 3 }, { 16'384, 65'536 } })->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
