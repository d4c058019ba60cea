#include "FaultDevice.h"

#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <csignal>

namespace {
constexpr int kPollMs = 250;
// Conditions (a log line, an answer) are looked at more often than the device is sampled.
constexpr int kConditionMs = 50;
constexpr double kBytesPerSecond = 44100.0 * 2 * 2;
// Longer than this without new audio is a silence a listener notices.
constexpr qint64 kSilenceMs = 1000;
// The play logic claiming "playing" (state 2) through this much silence is a lie.
constexpr qint64 kClaimMs = 3000;
constexpr int kStartAudioMs = 15000;
constexpr int kTrackSeconds = 2;

QString seconds(qint64 ms)
{
    return QString::number(double(ms) / 1000.0, 'f', 1) + QStringLiteral(" s");
}
} // namespace

FaultDevice::FaultDevice(const Binaries& binaries, const QString& workDir)
    : m_binaries(binaries)
    , m_workDir(workDir)
    , m_rig(std::make_unique<DeviceRig>(DeviceRig::Paths{binaries.host, binaries.module, binaries.service}, workDir))
{
    m_clock.start();
}

FaultDevice::~FaultDevice()
{
    m_hostExpectedDown = true;
    m_rig.reset();
    for (auto it = m_mounts.crbegin(); it != m_mounts.crend(); ++it)
        QProcess::execute(QStringLiteral("umount"), {QStringLiteral("-l"), *it});
}

QString FaultDevice::settingsFile() const
{
    return m_workDir + QStringLiteral("/device/settings.json");
}

QString FaultDevice::installedLibrary() const
{
    return m_rig->dataDir() + QStringLiteral("/data-rw/orvello/liboplayer-1.so");
}

void FaultDevice::setupError(const QString& why)
{
    m_setupErrors << why;
}

void FaultDevice::fail(const QString& why)
{
    m_failures << QStringLiteral("at %1: %2").arg(when(), why);
}

QString FaultDevice::when() const
{
    return seconds(m_clock.elapsed());
}

bool FaultDevice::run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        setupError(QStringLiteral("%1 %2 failed: %3")
                       .arg(program, arguments.join(QLatin1Char(' ')),
                            QString::fromLocal8Bit(process.readAll()).trimmed() + process.errorString()));
        return false;
    }
    return true;
}

bool FaultDevice::placeLibrary(const QString& path, const QString& file)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile::remove(path);
    if (!QFile::copy(file, path)) {
        setupError(QStringLiteral("cannot copy %1 to %2").arg(file, path));
        return false;
    }
    return true;
}

bool FaultDevice::start(const Setup& setup)
{
    const QString library = setup.libraryFile.isEmpty() ? m_binaries.library100 : setup.libraryFile;
    const bool system = setup.library == LibraryAt::SystemCopy || setup.library == LibraryAt::Both;
    const bool installed = setup.library == LibraryAt::Installed || setup.library == LibraryAt::Both;
    if ((system && !placeLibrary(m_rig->devTreeLibraryPath(), library))
        || (installed && !placeLibrary(installedLibrary(), library)))
        return false;

    QString offerFile = setup.offerFile;
    if (offerFile.isEmpty())
        offerFile = setup.offer == QLatin1String("1.0.0") ? m_binaries.library100 : m_binaries.library110;
    QStringList serviceArguments;
    for (const QString& mode : setup.serviceFaults)
        serviceArguments << QStringLiteral("--fail") << mode;
    serviceArguments += setup.serviceArguments;
    QString error;
    if (!m_rig->startService(setup.offer, offerFile, &error, serviceArguments)) {
        setupError(error);
        return false;
    }

    QVariantHash settings{
        {QStringLiteral("settings/orvello/versionUrl"), setup.versionUrl.isEmpty() ? m_rig->versionUrl() : setup.versionUrl},
        {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), setup.checkSeconds},
        {QStringLiteral("settings/orvello/outputSampleRate"), 44100},
        {QStringLiteral("settings/orvello/outputChannels"), 2},
        {QStringLiteral("settings/orvello/cacheEnabled"), true},
        {QStringLiteral("settings/orvello/provisioningVendorId"), QStringLiteral("vendor-faults")},
        {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-FAULTS")},
        {QStringLiteral("settings/system/productName"), QStringLiteral("Fault Amp")}};
    if (setup.paired)
        settings.insert(QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier"));
    if (setup.beforeHost && !setup.beforeHost())
        return false;
    const QStringList env = QStringList{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=%1").arg(kTrackSeconds)} + setup.env;
    m_rig->setModule(setup.module.isEmpty() ? m_binaries.module : setup.module);
    const QString audioOut = setup.wav ? QStringLiteral("wav:") + wavFile() : QStringLiteral("null");
    if (!m_rig->startHost(settings, audioOut, QStringLiteral("realtime"), env, &error)) {
        fail(QStringLiteral("vrax-host did not come up: %1").arg(error));
        return false;
    }
    m_hostExpectedDown = false;
    if (setup.paired && setup.waitForAudio) {
        const int before = m_failures.size();
        expectPlaying(kStartAudioMs, QStringLiteral("the start"));
        return m_failures.size() == before;
    }
    return true;
}

bool FaultDevice::restartHost()
{
    m_earlierLogs += m_rig->hostLog();
    m_earlierLogs << QStringLiteral("---- vrax-host started again at %1 ----").arg(when());
    QString error;
    if (!m_rig->restartHost(&error)) {
        fail(QStringLiteral("vrax-host did not come up again: %1").arg(error));
        return false;
    }
    m_hostExpectedDown = false;
    m_heardBefore += m_lastRaw;
    m_lastRaw = 0;
    return true;
}

void FaultDevice::signalHost(int signal)
{
    if (signal == SIGKILL || signal == SIGTERM)
        m_hostExpectedDown = true;
    // A stopped host claims nothing: what it said before does not stretch across the stop.
    if (signal == SIGSTOP || signal == SIGCONT)
        m_samples << Sample{m_clock.elapsed(), -1, -1};
    if (const qint64 pid = m_rig->hostPid())
        ::kill(pid_t(pid), signal);
}

int FaultDevice::signalHostAndWait(int signal)
{
    signalHost(signal);
    return m_rig->waitForHostExit(20000);
}

bool FaultDevice::setService(const QJsonObject& change)
{
    QString error;
    if (!m_rig->setServiceState(change, &error)) {
        setupError(error);
        return false;
    }
    return true;
}

bool FaultDevice::offer(const QString& version, const QString& file, const QString& name)
{
    const QString target = m_rig->serviceDir() + QLatin1Char('/') + name;
    QFile::remove(target);
    if (!QFile::copy(file, target)) {
        setupError(QStringLiteral("cannot copy %1 for the service").arg(file));
        return false;
    }
    return setService({{QStringLiteral("version"), version}, {QStringLiteral("library"), name}});
}

QString FaultDevice::stringValue(const QString& path)
{
    return m_rig->get(QStringLiteral("/api/value?path=") + path)
        .body.value(QStringLiteral("value")).toObject().value(QStringLiteral("string_")).toString();
}

int FaultDevice::playState()
{
    const DeviceRig::Answer answer = m_rig->get(QStringLiteral("/api/playlogic"));
    return answer.ok() ? answer.body.value(QStringLiteral("state")).toInt() : -1;
}

DeviceRig::Answer FaultDevice::pair(const QString& code)
{
    return m_rig->setValue(QStringLiteral("orvello/browse/uiPairCode"), code);
}

void FaultDevice::noticeHostEnd()
{
    if (m_hostExpectedDown || m_rig->hostRunning())
        return;
    m_hostExpectedDown = true;
    const int code = m_rig->waitForHostExit(0);
    fail(code < 0 ? QStringLiteral("vrax-host crashed") : QStringLiteral("vrax-host ended by itself with status %1").arg(code));
}

void FaultDevice::sample()
{
    noticeHostEnd();
    Sample s{m_clock.elapsed(), -1, -1};
    if (m_rig->hostRunning()) {
        const DeviceRig::Answer pipeline = m_rig->get(QStringLiteral("/api/pipeline"));
        if (pipeline.ok()) {
            s.bytes = pipeline.body.value(QStringLiteral("bytes")).toDouble();
            s.state = playState();
        }
    }
    // The counter starts from 0 with every host; what a listener heard adds up across them.
    if (s.bytes >= 0) {
        m_lastRaw = s.bytes;
        s.bytes += m_heardBefore;
    }
    m_samples << s;

    // State 2 all the way through a silence?
    if (m_claimReported || s.state != 2)
        return;
    qint64 silentSince = s.ms;
    for (int i = m_samples.size() - 2; i >= 0; --i) {
        const Sample& earlier = m_samples.at(i);
        if (earlier.state != 2 || earlier.bytes != s.bytes)
            break;
        silentSince = earlier.ms;
    }
    if (s.ms - silentSince >= kClaimMs) {
        m_claimReported = true;
        fail(QStringLiteral("the play logic claims playing (state 2) through %1 of silence").arg(seconds(s.ms - silentSince)));
    }
}

void FaultDevice::observe(int ms)
{
    observeUntil([] { return false; }, ms);
}

bool FaultDevice::observeUntil(const std::function<bool()>& condition, int ms)
{
    QElapsedTimer timer;
    timer.start();
    qint64 sampled = -kPollMs;
    for (;;) {
        if (timer.elapsed() - sampled >= kPollMs) {
            sampled = timer.elapsed();
            sample();
        }
        if (condition())
            return true;
        if (timer.elapsed() >= ms)
            return false;
        QTest::qWait(int(std::min<qint64>(kConditionMs, ms - timer.elapsed())));
    }
}

bool FaultDevice::waitForLog(const QString& text, int ms)
{
    return observeUntil([&] { return !log().filter(text).isEmpty(); }, ms);
}

QStringList FaultDevice::log()
{
    return m_earlierLogs + m_rig->hostLog();
}

qint64 FaultDevice::longestSilence(qint64 fromMs, qint64* startMs) const
{
    qint64 longest = 0;
    const Sample* anchor = nullptr;
    for (const Sample& s : m_samples) {
        if (s.ms < fromMs)
            continue;
        if (!anchor || s.bytes > anchor->bytes) {
            anchor = &s;
            continue;
        }
        if (s.ms - anchor->ms > longest) {
            longest = s.ms - anchor->ms;
            *startMs = anchor->ms;
        }
    }
    return longest;
}

void FaultDevice::expectPlaying(int withinMs, const QString& after)
{
    const double from = bytes();
    if (!observeUntil([&] { return bytes() >= from + kBytesPerSecond / 2; }, withinMs)) {
        fail(QStringLiteral("no audio within %1 after %2").arg(seconds(withinMs), after));
        return;
    }
    expectKeepsPlaying(2000, after);
}

void FaultDevice::expectKeepsPlaying(int ms, const QString& during)
{
    const qint64 from = m_clock.elapsed();
    const double before = bytes();
    observe(ms);
    qint64 start = 0;
    const qint64 silence = longestSilence(from, &start);
    if (silence > kSilenceMs)
        fail(QStringLiteral("silent for %1 from %2 (%3)").arg(seconds(silence), seconds(start), during));
    else if (bytes() <= before)
        fail(QStringLiteral("no audio during %1").arg(during));
}

void FaultDevice::expectVersion(const QString& version)
{
    const QString running = stringValue(QStringLiteral("orvello/sdkVersion"));
    if (running != version)
        fail(QStringLiteral("runs library version '%1', not %2").arg(running.left(40), version));
}

void FaultDevice::expectLog(const QString& text, int withinMs)
{
    if (!waitForLog(text, withinMs))
        fail(QStringLiteral("the log has no line with \"%1\"").arg(text));
}

void FaultDevice::expectNoLog(const QString& text)
{
    const QStringList lines = log().filter(text);
    if (!lines.isEmpty())
        fail(QStringLiteral("the log says \"%1\"").arg(lines.first().left(300)));
}

void FaultDevice::expectLogAtMost(const QString& text, int times)
{
    const int seen = log().filter(text).size();
    if (seen > times)
        fail(QStringLiteral("the log has \"%1\" %2 times (at most %3 expected)").arg(text).arg(seen).arg(times));
}

void FaultDevice::expectState(int state)
{
    const int now = playState();
    if (now != state)
        fail(QStringLiteral("the play logic is in state %1, not %2").arg(now).arg(state));
}

void FaultDevice::expectCounterIntact()
{
    expectCleanExit();
    const WavFile wav = readWav(wavFile());
    const std::size_t at = counterBreak(wav.samples);
    if (wav.rate != 44100 || wav.channels != 2)
        fail(QStringLiteral("the WAV file holds %1 Hz, %2 channels").arg(wav.rate).arg(wav.channels));
    else if (wav.samples.empty() || at < wav.samples.size())
        fail(QStringLiteral("what was heard is not the library's counter: sample %1 of %2 is %3")
                 .arg(at).arg(wav.samples.size()).arg(at < wav.samples.size() ? wav.samples[at] : 0));
}

void FaultDevice::expectCleanExit()
{
    noticeHostEnd();
    if (!m_rig->hostRunning())
        return;
    m_hostExpectedDown = true;
    const int code = m_rig->stopHost();
    if (code != 0)
        fail(code < 0 ? QStringLiteral("SIGTERM did not end vrax-host cleanly (crashed or still running after 20 s)")
                      : QStringLiteral("SIGTERM ended vrax-host with status %1").arg(code));
}

bool FaultDevice::mountReadOnly(const QString& path)
{
    if (!run(QStringLiteral("mount"), {QStringLiteral("--bind"), path, path}))
        return false;
    m_mounts << path;
    return run(QStringLiteral("mount"), {QStringLiteral("-o"), QStringLiteral("remount,bind,ro"), path});
}

bool FaultDevice::unmount(const QString& path)
{
    const int at = m_mounts.lastIndexOf(path);
    if (at < 0) {
        setupError(QStringLiteral("nothing of this case is mounted at %1").arg(path));
        return false;
    }
    if (!run(QStringLiteral("umount"), {path}))
        return false;
    m_mounts.removeAt(at);
    return true;
}

bool FaultDevice::mountTmpfs(const QString& path, const QString& size)
{
    QDir().mkpath(path);
    if (!run(QStringLiteral("mount"), {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                                       QStringLiteral("size=") + size + QStringLiteral(",mode=0700"),
                                       QStringLiteral("tmpfs"), path}))
        return false;
    m_mounts << path;
    return true;
}

bool FaultDevice::resizeTmp(const QString& size)
{
    return run(QStringLiteral("mount"), {QStringLiteral("-o"), QStringLiteral("remount,size=") + size, QStringLiteral("/tmp")});
}

QString FaultDevice::fill(const QString& dir)
{
    const QString path = dir + QStringLiteral("/filler");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        setupError(QStringLiteral("cannot create %1: %2").arg(path, file.errorString()));
        return path;
    }
    const QByteArray block(64 * 1024, '\0');
    QByteArray small(512, '\0');
    while (file.write(block) == block.size()) {
    }
    while (file.write(small) == small.size()) {
    }
    return path;
}

QString FaultDevice::report()
{
    QStringList lines;
    lines << (m_failures.isEmpty() ? QStringLiteral("survived") : QStringLiteral("did not survive:"));
    for (const QString& failure : m_failures)
        lines << QStringLiteral("  ") + failure;
    lines << QStringLiteral("what a listener heard (time, audio bytes, play-logic state), once a second:");
    qint64 next = 0;
    for (const Sample& s : m_samples) {
        if (s.ms < next)
            continue;
        lines << QStringLiteral("  %1  %2  %3").arg(seconds(s.ms), 8).arg(s.bytes, 12, 'f', 0).arg(s.state);
        next = s.ms + 1000;
    }
    const QStringList all = log();
    lines << QStringLiteral("vrax-host log (last 80 lines of %1):").arg(all.size());
    for (int i = std::max(0, int(all.size()) - 80); i < all.size(); ++i)
        lines << QStringLiteral("  ") + all.at(i).left(400);
    return lines.join(QLatin1Char('\n'));
}
