#pragma once

// What every figure family of bench_device runs on: a fresh device per run, the host started with
// or without traces, waiting while the host's output flows, and failing with a reason.
#include "BenchRig.h"
#include "Stats.h"

#include <QElapsedTimer>
#include <QString>
#include <QStringList>
#include <QVariantHash>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <memory>

namespace bench {

// A figure measured once per run: its median and range.
struct Series
{
    QVector<double> values;
    void add(double value) { values << value; }
    double med() const { return median(values); }
    double lo() const { return values.isEmpty() ? std::nan("") : *std::min_element(values.begin(), values.end()); }
    double hi() const { return values.isEmpty() ? std::nan("") : *std::max_element(values.begin(), values.end()); }
};

// How bench_device prints a figure.
inline QString num(double value, int precision = 3)
{
    return figure(value, precision, 1000);
}

// Ends the measuring: main reports the message and writes no report.
[[noreturn]] void fail(const QString& message);

class Bench
{
public:
    Bench(const QString& workRoot, int runs) : m_workRoot(workRoot), m_runs(runs) { m_clock.start(); }

    int runs() const { return m_runs; }
    double elapsedS() const { return m_clock.elapsed() / 1000.0; }
    // A progress line, stamped with the seconds since the bench started.
    void say(const QString& text);

    // A rig in an emptied work directory of its own (see freshRig).
    std::unique_ptr<DeviceRig> newRig(const QString& name);
    // The settings of a bench device (see playerSettings).
    QVariantHash settings(const DeviceRig& rig, bool paired, int updateInterval) const;
    // Starts the host with the null audio output; traced, the host writes traceOf and the library
    // libraryTraceOf.
    void startHost(DeviceRig& rig, const QVariantHash& settings, const QString& pace, QStringList env, bool traced);
    QString traceOf(const DeviceRig& rig) const { return rig.workDir() + QStringLiteral("/host-trace.txt"); }
    QString libraryTraceOf(const DeviceRig& rig) const { return rig.workDir() + QStringLiteral("/library-trace.txt"); }

private:
    QString m_workRoot;
    int m_runs;
    QElapsedTimer m_clock;
};

// Keeps the host's standard error flowing while the bench waits.
void wait(int ms);
bool waitUntil(const std::function<bool()>& condition, int timeoutMs);

// A counter of the host's /api/pipeline ("bytes", "seconds", "underruns").
double pipelineValue(DeviceRig& rig, const char* key);
// The play logic's state (2 playing, 3 paused); -1 when the host does not answer.
int playState(DeviceRig& rig);
// Stops the host; fails unless it stopped cleanly.
void stopHost(DeviceRig& rig);

// CPU seconds per second of each thread name between two threadCpuSeconds readings; a thread that
// began in between counts from zero.
std::map<QString, double> threadCpuPerSecond(const std::map<QString, double>& before,
                                             const std::map<QString, double>& after, double seconds);

// processCpuSeconds, and a "Vm..." line of /proc/PID/status in KiB; fail when they cannot be read.
double cpuSecondsOf(qint64 pid);
qint64 statusKiB(qint64 pid, const char* key);

} // namespace bench
