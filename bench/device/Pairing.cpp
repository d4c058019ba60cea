// Figure 5b: pairing through the pairing page, against a code the module refuses before the
// library sees it.
#include "Figures.h"

namespace bench {

namespace {

struct PairRun
{
    double pairMs = 0;
    double refusedMs = 0;
};

PairRun pairRun(Bench& bench, int i)
{
    auto rig = bench.newRig(QStringLiteral("pair-%1").arg(i));
    bench.startHost(*rig, bench.settings(*rig, false, 0), QStringLiteral("fast"), {}, false);
    if (!rig->waitForLog(QStringLiteral("Waiting for pairing code before initializing"), 10000))
        fail(QStringLiteral("the device did not come up unpaired"));
    auto timed = [&](const QString& code, int status) {
        const qint64 start = nowNs();
        const DeviceRig::Answer answer = rig->setValue(QStringLiteral("orvello/browse/uiPairCode"), code);
        const double ms = double(nowNs() - start) / 1e6;
        if (answer.status != status)
            fail(QStringLiteral("pairing code %1 answered %2, not %3: %4").arg(code).arg(answer.status).arg(status)
                     .arg(answer.errorMessage()));
        return ms;
    };
    PairRun run;
    run.refusedMs = timed(QStringLiteral("ABC1EF"), 422);
    run.pairMs = timed(QStringLiteral("ORV-ELO"), 200);
    stopHost(*rig);
    return run;
}

} // namespace

PairingFigures measurePairing(Bench& bench)
{
    PairingFigures f;
    const int runs = bench.runs();
    for (int i = 0; i < runs; ++i) {
        const PairRun pair = pairRun(bench, i);
        f.pairMs.add(pair.pairMs);
        f.refusedMs.add(pair.refusedMs);
        bench.say(QStringLiteral("pairing %1/%2: %3 ms (refused code %4 ms)").arg(i + 1).arg(runs)
                      .arg(num(pair.pairMs)).arg(num(pair.refusedMs)));
    }
    return f;
}

} // namespace bench
