#include "scheduling/cron_error.h"
#include "scheduling/cron_expression.h"

#include <array>
#include <benchmark/benchmark.h>
#include <date/tz.h>

namespace {

using kestrolan::CronExpression;

constexpr std::array typicalExpressions{
    u"*/5 * * * *", u"0 * * * *", u"0 9 * * *", u"0 9 * * MON-FRI",    u"30 8 15 * *",
    u"0 12 13 * 5", u"* * * * *", u"0 0 1 1 *", u"15,45 9-17 * * 1-5",
};

// 2025-06-01T00:00:00Z; each iteration starts a little later so that every time of day and
// every day of the year is visited.
constexpr std::chrono::sys_seconds start{std::chrono::seconds(1748736000)};
constexpr std::chrono::seconds stride{7 * 60 + 13};
constexpr std::chrono::seconds year{365 * 24 * 3600};

void BM_CronNextFire(benchmark::State& state) {
    const CronExpression cron(typicalExpressions.at(static_cast<size_t>(state.range(0))));
    const date::time_zone* zone = date::locate_zone("America/New_York");
    state.SetLabel(cron.expression().toStdString());
    std::chrono::seconds offset{0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(cron.nextFire(start + offset, zone));
        offset = (offset + stride) % year;
    }
}
BENCHMARK(BM_CronNextFire)->DenseRange(0, static_cast<int>(typicalExpressions.size()) - 1);

void BM_CronNoMatch(benchmark::State& state) {
    const CronExpression cron(u"0 0 31 2 *");
    const date::time_zone* zone = date::locate_zone("America/New_York");
    for (auto _ : state) {
        try {
            benchmark::DoNotOptimize(cron.nextFire(start, zone));
            state.SkipWithError("31 February fired");
        } catch (const kestrolan::CronError&) {
        }
    }
    state.SetLabel("0 0 31 2 * (eight years searched)");
}
BENCHMARK(BM_CronNoMatch)->Unit(benchmark::kMicrosecond);

} // namespace
