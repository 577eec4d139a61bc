// Rule-engine clean-up and rewrite of a 200-word dictated transcript.
#include "RuleTextEngine.h"

#include <benchmark/benchmark.h>

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

} // namespace

BENCHMARK_MAIN();
