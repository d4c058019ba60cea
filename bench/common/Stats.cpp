#include "Stats.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace bench {

qint64 nowNs()
{
    using Clock = std::chrono::steady_clock;
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

double percentile(QVector<double> values, double p)
{
    if (values.isEmpty())
        return std::nan("");
    std::sort(values.begin(), values.end());
    const int index = std::clamp(int(std::ceil(p * values.size())) - 1, 0, int(values.size()) - 1);
    return values.at(index);
}

double median(const QVector<double>& values)
{
    if (values.isEmpty())
        return std::nan("");
    QVector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const int n = sorted.size();
    return n % 2 ? sorted.at(n / 2) : (sorted.at(n / 2 - 1) + sorted.at(n / 2)) / 2;
}

double slope(const QVector<QPointF>& points, double from, double to, int minPoints)
{
    double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (const QPointF& p : points) {
        if (p.x() < from || p.x() > to)
            continue;
        n += 1;
        sx += p.x();
        sy += p.y();
        sxx += p.x() * p.x();
        sxy += p.x() * p.y();
    }
    const double d = n * sxx - sx * sx;
    return n < minPoints || d == 0 ? std::nan("") : (n * sxy - sx * sy) / d;
}

double medianY(const QVector<QPointF>& points, double from, double to)
{
    QVector<double> ys;
    for (const QPointF& p : points)
        if (p.x() >= from && p.x() <= to)
            ys << p.y();
    return median(ys);
}

QString figure(double value, int precision, double wholeFrom)
{
    if (std::isnan(value))
        return QStringLiteral("n/a");
    if (std::fabs(value) >= wholeFrom)
        return QString::number(value, 'f', 0);
    return QString::number(value, 'g', precision);
}

std::ostream& operator<<(std::ostream& out, const QString& text)
{
    return out << text.toUtf8().constData();
}

} // namespace bench
