#include "Bench.h"

#include "ProcStat.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <cstdio>
#include <stdexcept>

namespace bench {

void fail(const QString& message)
{
    throw std::runtime_error(message.toStdString());
}

void Bench::say(const QString& text)
{
    std::printf("[%5.0fs] %s\n", elapsedS(), text.toUtf8().constData());
    std::fflush(stdout);
}

std::unique_ptr<DeviceRig> Bench::newRig(const QString& name)
{
    QString error;
    std::unique_ptr<DeviceRig> rig = freshRig(m_workRoot + QLatin1Char('/') + name, &error);
    if (!rig)
        fail(error);
    return rig;
}

QVariantHash Bench::settings(const DeviceRig& rig, bool paired, int updateInterval) const
{
    return playerSettings(rig, QStringLiteral("Bench"), paired, updateInterval);
}

void Bench::startHost(DeviceRig& rig, const QVariantHash& settings, const QString& pace, QStringList env, bool traced)
{
    if (traced) {
        rig.setExtraHostArguments({QStringLiteral("--trace"), traceOf(rig)});
        env << QStringLiteral("OPLAYER_REF_TRACE=") + libraryTraceOf(rig);
    }
    QString error;
    if (!rig.startHost(settings, QStringLiteral("null"), pace, env, &error))
        fail(error);
}

void wait(int ms)
{
    QDeadlineTimer deadline(ms);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(std::min<qint64>(10, std::max<qint64>(0, deadline.remainingTime())));
    }
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        wait(20);
    }
    return true;
}

double pipelineValue(DeviceRig& rig, const char* key)
{
    return rig.get(QStringLiteral("/api/pipeline")).body.value(QLatin1String(key)).toDouble();
}

int playState(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt(-1);
}

void stopHost(DeviceRig& rig)
{
    if (rig.stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
}

double cpuSecondsOf(qint64 pid)
{
    const double seconds = processCpuSeconds(pid);
    if (seconds < 0)
        fail(QStringLiteral("cannot read the CPU time of process %1").arg(pid));
    return seconds;
}

std::map<QString, double> threadCpuPerSecond(const std::map<QString, double>& before,
                                             const std::map<QString, double>& after, double seconds)
{
    std::map<QString, double> perSecond;
    for (const auto& [name, cpu] : after) {
        const auto earlier = before.find(name);
        perSecond[name] = (cpu - (earlier == before.end() ? 0.0 : earlier->second)) / seconds;
    }
    return perSecond;
}

qint64 statusKiB(qint64 pid, const char* key)
{
    const qint64 kiB = statusValue(pid, key);
    if (kiB < 0)
        fail(QStringLiteral("no %1 for process %2").arg(QLatin1String(key)).arg(pid));
    return kiB;
}

} // namespace bench
