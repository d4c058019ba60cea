#pragma once

// Time, statistics and the printing of figures, shared by the benchmarks.
#include <QPointF>
#include <QString>
#include <QVector>

#include <ostream>

namespace bench {

// The bytes of a second of 44.1 kHz 16-bit stereo audio.
constexpr double kBytesPerSecond = 44100.0 * 2 * 2;

// Nanoseconds in a millisecond and in a second.
constexpr qint64 kMs = 1000000;
constexpr qint64 kS = 1000 * kMs;

// std::chrono::steady_clock in nanoseconds: CLOCK_MONOTONIC, the clock of the traces.
qint64 nowNs();

// The value at fraction p (0.5: median) of the sorted values, without interpolating; NaN for none.
double percentile(QVector<double> values, double p);
// The middle value, or the mean of the two middle ones; NaN for none.
double median(const QVector<double>& values);
// Least-squares slope of the points whose x lies in [from, to]; NaN with fewer than minPoints.
double slope(const QVector<QPointF>& points, double from, double to, int minPoints = 2);
// The median of the y of the points whose x lies in [from, to].
double medianY(const QVector<QPointF>& points, double from, double to);

// A figure as a report prints it: "n/a" for NaN, no decimals from wholeFrom on, otherwise precision
// significant digits.
QString figure(double value, int precision, double wholeFrom);

std::ostream& operator<<(std::ostream& out, const QString& text);

} // namespace bench
