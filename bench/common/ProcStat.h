#pragma once

// What the benchmarks read of a running process and of the machine, from /proc.
#include <QString>

#include <map>

namespace bench {

// user+sys CPU seconds of a process (all its threads, the ended ones included); -1 when it cannot
// be read.
double processCpuSeconds(qint64 pid);

// CPU seconds per thread name; the main thread is "main", unnamed threads carry the program's name.
std::map<QString, double> threadCpuSeconds(qint64 pid);

// The number after key ("VmRSS:", "Threads:") in /proc/PID/status; -1 when the process or the line
// is not there.
qint64 statusValue(qint64 pid, const char* key);

// The entries of /proc/PID/fd.
int openFileDescriptors(qint64 pid);

// The three load averages of /proc/loadavg, as written there.
QString loadAverage();

// "N cores, CPU MODEL, KERNEL RELEASE", the machine line of a report.
QString machine();

// Online processors.
int cpuCores();

} // namespace bench
