#pragma once

// The soak's report: bench/results/soak.md, with the data of its plot (bench/soak/plot.gp).
#include "Soak.h"

#include <QDateTime>
#include <QString>

namespace bench {

// Writes results/soak.md and the plot's data (soak.dat) in the soak's work directory, then prints
// the report; false, said on standard error, when either cannot be written. startLoad and started:
// the load averages and the time when the soak began.
bool writeSoakReport(const Soak& soak, const QString& results, const QString& startLoad, const QDateTime& started);

} // namespace bench
