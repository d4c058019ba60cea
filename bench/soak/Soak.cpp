#include "Soak.h"

#include "ProcStat.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QThread>

#include <time.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

volatile std::sig_atomic_t s_interrupted = 0;

void onInterrupt(int)
{
    s_interrupted = 1;
}

// CLOCK_REALTIME minus CLOCK_MONOTONIC: puts the log's wall-clock times on the trace's clock.
qint64 realtimeOffsetNs()
{
    timespec real{}, mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &real);
    return (qint64(real.tv_sec) - qint64(mono.tv_sec)) * kS + (qint64(real.tv_nsec) - qint64(mono.tv_nsec));
}

ProcessSample sampleProcess(qint64 pid)
{
    ProcessSample s;
    s.rssKiB = statusValue(pid, "VmRSS:");
    if (s.rssKiB < 0)
        return s;
    s.threads = int(statusValue(pid, "Threads:"));
    s.fds = openFileDescriptors(pid);
    s.cpuSeconds = processCpuSeconds(pid);
    return s;
}

} // namespace

void Soak::endOnSignals()
{
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void Soak::say(const QString& text)
{
    std::printf("[%5.1f min] %s\n", m_record.startNs ? double(nowNs() - m_record.startNs) / 60e9 : 0.0, text.toUtf8().constData());
    std::fflush(stdout);
}

bool Soak::start(QString* error)
{
    m_record.libraries[0] = {QStringLiteral("1.0.0"), QStringLiteral("liboplayer-1.0.0.so"), referenceLibrary(QStringLiteral("1.0.0"))};
    m_record.libraries[1] = {QStringLiteral("1.1.0"), QStringLiteral("liboplayer-1.1.0.so"), referenceLibrary(QStringLiteral("1.1.0"))};
    m_rig = freshRig(m_work, error);
    if (!m_rig)
        return false;
    if (!m_rig->startService(m_record.libraries[0].version, m_record.libraries[0].source, error))
        return false;
    m_servicePort = m_rig->servicePort();
    for (const Library& library : m_record.libraries) {
        const QString copy = m_rig->serviceDir() + QLatin1Char('/') + library.file;
        if (!QFile::copy(library.source, copy)) {
            *error = QStringLiteral("cannot copy %1 to %2").arg(library.source, copy);
            return false;
        }
    }
    // The service offers the lowest version the device can run, so no check finds anything newer.
    m_serviceState = offer(m_record.libraries[0].version, m_record.libraries[0]);
    m_serviceState.insert(QStringLiteral("fail"), QJsonArray());
    if (!m_rig->setServiceState(m_serviceState, error))
        return false;

    const QString logFile = m_work + QStringLiteral("/host.log");
    const QString traceFile = m_work + QStringLiteral("/host-trace.txt");
    const QString logConfig = m_work + QStringLiteral("/host-log.properties");
    QFile config(logConfig);
    // Epoch milliseconds beside the time of day, so log lines can be placed on the trace's clock.
    const QByteArray properties = "log4cplus.rootLogger=INFO, file\n"
                                  "log4cplus.appender.file=log4cplus::FileAppender\n"
                                  "log4cplus.appender.file.File=" + logFile.toUtf8() + "\n"
                                  "log4cplus.appender.file.Append=true\n"
                                  "log4cplus.appender.file.ImmediateFlush=true\n"
                                  "log4cplus.appender.file.layout=log4cplus::PatternLayout\n"
                                  "log4cplus.appender.file.layout.ConversionPattern=%D{%H:%M:%S.%q} %D{%s.%q} %-5p [%c] %m%n\n";
    QFile log(logFile), trace(traceFile);
    if (!config.open(QIODevice::WriteOnly) || config.write(properties) != properties.size() || !log.open(QIODevice::WriteOnly)
        || !trace.open(QIODevice::WriteOnly)) {
        *error = QStringLiteral("cannot write the host's log configuration, log or trace in %1").arg(m_work);
        return false;
    }
    config.close();
    m_log = std::make_unique<Tail>(logFile);
    m_trace = std::make_unique<Tail>(traceFile);

    QVariantHash settings = playerSettings(*m_rig, QStringLiteral("Soak"), true, 1);
    settings.insert(QStringLiteral("settings/orvello/deviceId"), QStringLiteral("device-soak"));
    m_rig->setExtraHostArguments({QStringLiteral("--trace"), traceFile, QStringLiteral("--log-config"), logConfig});
    m_offsetNs = realtimeOffsetNs();
    if (!m_rig->startHost(settings, QStringLiteral("null"), QStringLiteral("fast"),
                          {QStringLiteral("OPLAYER_REF_TRACK_SECONDS=") + QString::number(m_options.trackSeconds)}, error))
        return false;
    m_pid = m_rig->hostPid();
    m_record.startNs = nowNs();
    m_deadlineNs = m_record.startNs + qint64(m_options.minutes) * 60 * kS;
    m_nextSampleNs = m_record.startNs;
    m_nextReportNs = m_record.startNs + 60 * kS;
    m_nextFaultNs = m_record.startNs + qint64(m_options.faultEverySeconds) * kS;
    m_nextStopNs = m_record.startNs + qint64(m_options.stopEverySeconds) * kS;
    m_nextPauseNs = m_record.startNs + qint64(m_options.stopEverySeconds) * kS / 2 + qint64(m_options.pauseEverySeconds) * kS;
    const ProcessSample first = sampleProcess(m_pid);
    m_record.cpuBase = std::max(0.0, first.cpuSeconds);

    // The run starts once the device plays.
    const qint64 startBy = nowNs() + 30 * kS;
    while (!m_firstAudioNs && nowNs() < startBy && !s_interrupted) {
        step();
        if (!m_record.aborted.isEmpty())
            break;
    }
    if (!m_firstAudioNs) {
        *error = m_record.aborted.isEmpty() ? QStringLiteral("the device did not start playing within 30 s; its log:\n")
                                           + QStringList(m_logTail.begin(), m_logTail.end()).join(QLatin1Char('\n'))
                                     : m_record.aborted;
        return false;
    }
    say(QStringLiteral("playing on %1; soaking for %2 min (pid %3, work directory %4)")
            .arg(m_running).arg(m_options.minutes).arg(m_pid).arg(m_work));
    return true;
}

void Soak::run()
{
    while (nowNs() < m_deadlineNs && !s_interrupted && m_record.aborted.isEmpty()) {
        step();
        if (nowNs() >= m_nextReportNs) {
            m_nextReportNs = std::max(m_nextReportNs + 60 * kS, nowNs() + 30 * kS);
            const Sample& s = m_record.samples.empty() ? Sample() : m_record.samples.back();
            say(QStringLiteral("%1 h of audio, %2 swaps, %3 faults, %4 crashes, silence %5 s (heard %6 s), RSS %7 MiB, "
                               "%8 fds, %9 threads")
                    .arg(num(double(m_record.audioBytes) / kBytesPerSecond / 3600))
                    .arg(m_record.swaps.size())
                    .arg(m_record.faults.size())
                    .arg(m_record.crashes.size())
                    .arg(num(m_silence.totalSeconds()))
                    .arg(num(m_silence.heardSeconds()))
                    .arg(num(double(s.process.rssKiB) / 1024))
                    .arg(s.process.fds)
                    .arg(s.process.threads));
        }
    }
    if (s_interrupted)
        say(QStringLiteral("interrupted: ending the run and writing the report for the time so far"));
}

void Soak::step()
{
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    readLog();
    readTrace();
    checkHost();
    if (m_firstAudioNs) {
        driveFault();
        driveSwap();
        driveControl();
        // A request above may have kept the soak waiting (the service answers its admin requests
        // behind slow answers): catch up with the trace before judging silence, or the wait
        // itself looks like silence.
        readTrace();
        watchSilence();
        // After a request that kept the soak waiting, sampling goes on from now rather than catching up.
        if (nowNs() >= m_nextSampleNs) {
            m_nextSampleNs = std::max(m_nextSampleNs + kS, nowNs() + kS / 2);
            sample();
        }
    }
    QThread::msleep(10);
}

// ---- the log ----------------------------------------------------------------------------------

void Soak::readLog()
{
    m_log->read([this](const char* begin, const char* end) { onLogLine(begin, end); });
}


// "HH:MM:SS.mmm EPOCH.mmm LEVEL [logger] message", the layout the soak gives the host.
void Soak::onLogLine(const char* begin, const char* end)
{
    const QString line = QString::fromUtf8(begin, int(end - begin));
    m_logTail.push_back(line);
    if (m_logTail.size() > 60)
        m_logTail.pop_front();
    static const QRegularExpression layout(QStringLiteral("^\\S+ (\\d+)\\.(\\d{3}) (\\w+) +\\[[^\\]]*\\] (.*)$"));
    const QRegularExpressionMatch m = layout.match(line);
    if (!m.hasMatch())
        return;   // a message that spans lines
    const qint64 ns = m.captured(1).toLongLong() * kS + m.captured(2).toLongLong() * kMs - m_offsetNs;
    const QByteArray level = m.captured(3).toLatin1();
    const QString text = m.captured(4);
    ++m_record.levels[level];
    if (level == "WARN" || level == "ERROR" || level == "FATAL") {
        static const QRegularExpression hex(QStringLiteral("[0-9a-fA-F]{16,}"));
        static const QRegularExpression digits(QStringLiteral("\\d{4,}"));
        QString key = text;
        key.replace(hex, QStringLiteral("HEX")).replace(digits, QStringLiteral("N"));
        LineCount& count = m_record.lines[QString::fromLatin1(level) + QLatin1Char(' ') + key.left(240)];
        count.level = level;
        ++count.count;
        if (!insideFault(ns))
            ++count.outsideFaults;
        if (count.example.isEmpty())
            count.example = text.left(400);
    }
    static const QString loaded = QStringLiteral("Running SDK version: ");
    if (text.startsWith(loaded)) {
        onLibraryLoaded(ns, text.mid(loaded.size()).trimmed());
    } else if (text == QLatin1String("End of oplayer main loop, cleaning up")) {
        ++m_record.loopEnds;
        m_lastLoopEndNs = ns;
        m_silence.onLibraryEvent(ns);
    } else if (text == QLatin1String("Requesting exit at end of song")) {
        onExitRequested(ns);
    } else if (text.contains(QLatin1String("the previous library is back in its place"))) {
        ++m_record.rollbacks;
        incident(QStringLiteral("an update was rolled back: ") + text);
    } else if (text.startsWith(QLatin1String("No player library is running"))) {
        ++m_record.noLibrary;
    }
}

// ---- the trace ------------------------------------------------------------------------------

void Soak::readTrace()
{
    m_trace->read([this](const char* begin, const char* end) { onTraceLine(begin, end); });
    QString error;
    if (m_record.traceRelease.isEmpty() && !m_trace->release(64 << 20, &error))
        m_record.traceRelease = error;
}

// "NS NAME [NUMBERS...]" (see vrax-host --trace).
void Soak::onTraceLine(const char* begin, const char* end)
{
    char* after = nullptr;
    const qint64 ns = std::strtoll(begin, &after, 10);
    if (after == begin || after >= end || *after != ' ')
        return;
    const char* name = after + 1;
    auto is = [&](const char* word) {
        const std::size_t n = std::strlen(word);
        return std::size_t(end - name) >= n && std::memcmp(name, word, n) == 0 && (name + n == end || name[n] == ' ');
    };
    if (is("audio"))
        onAudio(ns, std::strtoll(name + 5, nullptr, 10));
    else if (is("connected"))
        ++m_record.connections;
    else if (is("sequence"))
        ++m_record.sequences;
    else if (is("flush"))
        ++m_record.flushes;
}

void Soak::onAudio(qint64 ns, qint64 bytes)
{
    m_record.audioBytes += bytes;
    if (!m_firstAudioNs)
        m_firstAudioNs = ns;
    m_silence.onRead(ns);
    // Audio well after the soak's stop or pause: something started the music again meanwhile.
    if ((m_control == Control::Stopped || m_control == Control::Paused) && !m_playedWhileQuiet
        && ns > m_silence.quietFromNs() + 500 * kMs) {
        m_playedWhileQuiet = true;
        ++m_record.playedWhileQuietCount;
        incident(QStringLiteral("audio %1 ms after %2").arg((ns - m_silence.quietFromNs()) / kMs)
                     .arg(m_control == Control::Stopped ? "stop" : "pause")
                 + (m_lastLoadNs > m_silence.quietFromNs()
                        ? QStringLiteral(": an update swapped in meanwhile, and the new library started playing by itself")
                        : QString()));
    }
    if (m_control == Control::AwaitAudio && ns > m_awaitSinceNs) {
        (m_awaitingAfterStop ? m_record.playLatenciesMs : m_record.resumeLatenciesMs).push_back(double(ns - m_awaitSinceNs) / 1e6);
        m_control = Control::Idle;
    }
    m_stuckPlaySent = false;
}

void Soak::watchSilence()
{
    if (m_control == Control::Stopped || m_control == Control::Paused || m_stopping)
        return;
    const qint64 now = nowNs();
    const qint64 since = m_silence.audioDueSinceNs();
    if (now - since > kGiveUpNs) {
        incident(QStringLiteral("silent for %1 s although play was pressed; restarting vrax-host").arg((now - since) / kS));
        ++m_record.forcedRestarts;
        const int code = m_rig->stopHost();
        if (code != 0)
            incident(QStringLiteral("vrax-host did not stop cleanly when asked (exit status %1)").arg(code));
        restartHost(QStringLiteral("after the silence"));
        m_stuckPlaySent = false;
    } else if (now - since > kStuckNs && !m_stuckPlaySent) {
        incident(QStringLiteral("silent for %1 s while it should play (play state %2, library %3); pressing play")
                     .arg((now - since) / kS).arg(playState()).arg(m_running));
        m_rig->post(QStringLiteral("/api/player/play"), {});
        m_stuckPlaySent = true;
    }
}

// ---- the host ---------------------------------------------------------------------------------

void Soak::incident(const QString& what)
{
    Incident i{nowNs(), what, QStringList(m_logTail.end() - std::min<std::ptrdiff_t>(20, std::ptrdiff_t(m_logTail.size())), m_logTail.end())};
    say(QStringLiteral("incident: ") + what);
    m_record.incidents.push_back(i);
}

void Soak::checkHost()
{
    if (m_stopping || s_interrupted || m_rig->hostRunning())
        return;
    const qint64 ns = nowNs();
    const int code = m_rig->waitForHostExit(0);
    readLog();
    m_record.crashes.push_back(ns);
    // Standard error holds what does not go through the log: the library's notes, a sanitizer's report.
    QStringList err;
    for (const QString& line : m_rig->hostLog())
        if (!line.startsWith(QLatin1String("oplayer-ref: track")))
            err << line;
    err = err.mid(std::max(0, int(err.size()) - 10));
    incident((code < 0 ? QStringLiteral("vrax-host crashed (ended by a signal)")
                       : QStringLiteral("vrax-host exited by itself with status %1").arg(code))
             + (err.isEmpty() ? QStringLiteral("; nothing on its standard error")
                              : QStringLiteral("; its standard error ends: ") + err.join(QStringLiteral(" | "))));
    restartHost(QStringLiteral("after it ended"));
}

void Soak::restartHost(const QString& why)
{
    QString error;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (m_rig->restartHost(&error)) {
            m_pid = m_rig->hostPid();
            m_silence.onRestart(nowNs());
            m_record.cpuBase -= m_record.cpuSeconds;   // the new process counts from zero
            m_record.cpuSeconds = 0;
            m_expectLoad = true;
            say(QStringLiteral("vrax-host started again %1 (pid %2)").arg(why).arg(m_pid));
            return;
        }
        QThread::msleep(1000);
    }
    m_record.aborted = QStringLiteral("vrax-host did not start again: ") + error;
}

int Soak::playState()
{
    return m_rig->get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt(-1);
}

// ---- samples ----------------------------------------------------------------------------------

void Soak::sample()
{
    if (!m_pid)
        return;
    Sample s;
    s.ns = nowNs();
    s.process = sampleProcess(m_pid);
    if (s.process.rssKiB < 0)
        return;   // ended; checkHost deals with it
    m_record.cpuSeconds = s.process.cpuSeconds;
    s.audioHours = double(m_record.audioBytes) / kBytesPerSecond / 3600;
    s.swaps = int(m_record.swaps.size());
    s.faults = int(m_record.faults.size());
    s.silenceS = m_silence.totalSeconds();
    s.heardS = m_silence.heardSeconds();
    s.state = playState();
    // The play logic must not say "playing" through silence.
    const qint64 since = m_silence.audioDueSinceNs();
    const bool silent = m_control != Control::Stopped && m_control != Control::Paused && s.ns - since > 3 * kS;
    if (s.state == 2 && silent) {
        if (!m_inFalseClaim) {
            ++m_record.falseClaims;
            incident(QStringLiteral("the play logic says playing through %1 s of silence").arg((s.ns - since) / kS));
        }
        m_inFalseClaim = true;
    } else {
        m_inFalseClaim = false;
    }
    m_record.samples.push_back(s);
}

// ---- the end ----------------------------------------------------------------------------------

void Soak::finish()
{
    m_record.endNs = nowNs();
    if (m_faultActive)
        clearFault();
    countDownloads();
    readTrace();
    m_silence.finish(m_record.endNs);
    m_stopping = true;
    const qint64 stopAt = nowNs();
    // Ctrl-C reaches the host too, which then ends by itself.
    m_record.finalExitCode = m_rig->hostRunning() ? m_rig->stopHost() : m_rig->waitForHostExit(0);
    m_record.finalStopMs = double(nowNs() - stopAt) / 1e6;
    readLog();
    readTrace();
}

} // namespace bench
