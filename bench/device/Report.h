#pragma once

// bench_device's report: bench/results/latest.md, with the data of its plot (bench/device/plot.gp).
#include "Figures.h"

#include <QDateTime>
#include <QString>

namespace bench {

// How the measuring went, for the report's head.
struct Session
{
    int runs = 0;
    QDateTime started;
    QString startLoad;        // the load averages when measuring began
    double measuringS = 0;
};

// Writes results/latest.md and the plot's data in work (rss.dat, swap.dat, swaps.dat, heap.dat,
// hours.dat), then prints the report; false, said on standard error, when latest.md cannot be written.
bool writeReport(const DeviceFigures& figures, const Session& session, const QString& results, const QString& work);

} // namespace bench
