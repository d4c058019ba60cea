// The audio socket: a local program on the pipeline's socket (tests/faults/audio_stranger.cpp),
// of the device's own account or of another one (uid 65534). It is there before the host starts
// and connects the moment each pipeline listens, ahead of the module's sender; the device is
// stopped and played a few times, so every play is a new pipeline it races to.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include <QProcess>

#include <memory>

namespace {

const QString kAudioSocket = QStringLiteral("/tmp/orvello/smt2socketaddress");

const QString kDroppedStranger = QStringLiteral("WARN  [AudioPipeline] Dropped a client of /tmp/orvello/smt2socketaddress "
                                                "before its handshake: ");

constexpr int kHandshakeTimeoutMs = 2000;

constexpr int kStrangerSeconds = 150;

// The race is the stranger's to lose now and then: plays go on until it has won twice.
constexpr int kStrangerWins = 2;

constexpr int kStrangerMinPlays = 2;

constexpr int kStrangerMaxPlays = 12;

constexpr int kOtherAccountPlays = 4;

} // namespace

Scenario audioStranger(const QString& mode, bool otherAccount, const QString& dropped)
{
    return [=](FaultDevice& d) {
        auto stranger = std::make_shared<QProcess>();
        stranger->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        Setup setup;
        setup.beforeHost = [&d, stranger, mode, otherAccount] {
            const QStringList arguments{QStringLiteral(AUDIO_STRANGER_PATH), kAudioSocket, mode, QString::number(kStrangerSeconds)};
            if (otherAccount)
                stranger->start(QStringLiteral("setpriv"), QStringList{QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                                                                       QStringLiteral("--clear-groups")} + arguments);
            else
                stranger->start(arguments.first(), arguments.mid(1));
            if (!stranger->waitForStarted(5000) || !d.observeUntil([&] { return stranger->canReadLine(); }, 5000)) {
                d.setupError(QStringLiteral("the stranger did not start: %1").arg(stranger->errorString()));
                return false;
            }
            return true;
        };
        if (!d.start(setup))
            return;
        // The stranger costs the module at most the handshake timeout; a start takes the rest.
        const auto drops = [&d, dropped] { return int(d.log().filter(kDroppedStranger + dropped).size()); };
        int plays = 0;
        const auto morePlays = [&] {
            if (otherAccount)
                return plays < kOtherAccountPlays;
            return plays < kStrangerMinPlays || (plays < kStrangerMaxPlays && drops() < kStrangerWins);
        };
        while (morePlays()) {
            if (!player(d, "stop") || !d.observeUntil([&d] { return d.playState() == 0; }, 5000))
                return d.fail(QStringLiteral("the device did not stop"));
            ++plays;
            if (player(d, "play"))
                d.expectPlaying(kHandshakeTimeoutMs + 3000, QStringLiteral("a play with a stranger on the audio socket"));
        }
        const QString said = QString::fromLocal8Bit(stranger->readAllStandardOutput());
        stranger->kill();
        stranger->waitForFinished(5000);
        if (otherAccount) {
            // The socket file is the device user's alone: the stranger never got a connection.
            if (said.contains(QStringLiteral("connected")) || !said.contains(QStringLiteral("refused: Permission denied")))
                d.fail(QStringLiteral("the other account's program was not refused by the file mode: %1").arg(said.simplified()));
            d.expectNoLog(kDroppedStranger);
        } else if (drops() == 0) {
            d.setupError(QStringLiteral("the stranger never got ahead of the module: %1").arg(said.simplified()));
        }
        d.expectNoLog(QStringLiteral("SMT sender handshake failed"));
        d.expectNoLog(QStringLiteral("Failed to connect audio transfer"));
        qInfo("the stranger was served before the module %d times in %d starts", drops(), plays + 1);
    };
}
