// The device's controls: stop, play, pause, the volume, and a stop or pause across a library swap.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include <QJsonArray>
#include <QJsonDocument>

void stopThenPlay(FaultDevice& d)
{
    if (!d.start(Setup()) || !player(d, "stop"))
        return;
    if (!d.observeUntil([&d] { return d.playState() == 0; }, 5000))
        d.fail(QStringLiteral("the play logic is not stopped after a stop"));
    if (player(d, "play"))
        d.expectPlaying(5000, QStringLiteral("play after stop"));
}

// Toggles come faster than the library announces each pause on its own thread, and the play
// logic toggles on the state the library last announced: a toggle inside that window repeats the
// previous one, so the count of toggles decides nothing. What must hold is that the device
// settles where the listener hears it (paused and quiet, or playing and heard) and that the next
// toggle still turns it over.
void pauseToggles(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    for (int i = 0; i < 21; ++i)
        if (!player(d, "pause"))
            return;
    d.observe(1500);
    const int settled = d.playState();
    if (settled != 2 && settled != 3)
        return d.fail(QStringLiteral("neither playing nor paused after 21 toggles (state %1)").arg(settled));
    const auto heard = [&d] {
        const double before = d.bytes();
        d.observe(3000);
        return d.bytes() - before;
    };
    const double settledBytes = heard();
    if ((settled == 2) != (settledBytes > 0))
        return d.fail(QStringLiteral("state %1 after 21 toggles, yet %2 bytes heard in 3 s").arg(settled).arg(settledBytes));
    if (!player(d, "pause"))
        return;
    if (settled == 3) {
        d.expectPlaying(5000, QStringLiteral("the toggle after the burst"));
        d.expectState(2);
        return;
    }
    if (!d.observeUntil([&d] { return d.playState() == 3; }, 5000))
        return d.fail(QStringLiteral("the toggle after the burst did not pause (state %1)").arg(d.playState()));
    d.observe(1000);
    if (const double after = heard(); after > 0)
        d.fail(QStringLiteral("paused by the toggle after the burst, yet %1 bytes heard in 3 s").arg(after));
}

// The device's stop or pause while a verified update waits for the end of a long song: the
// library's loop ends at once and 1.1.0 is swapped in, but the device stays quiet and says so
// (12 s of listening); its play brings the music back, on 1.1.0.
Scenario quietAcrossSwap(bool pause)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.env = QStringList{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=600")};
        if (!d.start(setup) || !d.offer(QStringLiteral("1.1.0"), d.binaries().library110))
            return;
        if (!d.waitForLog(kSwapRequested, 10000))
            return d.fail(QStringLiteral("no verified update waited for the end of the song"));
        if (!player(d, pause ? "pause" : "stop"))
            return;
        const QString kept = pause ? QStringLiteral("INFO  [Orvello] The device's pause is kept across the library swap")
                                   : QStringLiteral("INFO  [Orvello] The device's stop is kept across the library swap");
        d.expectLog(kUpdated, 10000);
        d.expectLog(kept, 5000);
        const double before = d.bytes();
        d.observe(12000);
        if (d.bytes() > before)
            d.fail(QStringLiteral("%1 bytes of audio heard in the 12 s after the swap").arg(d.bytes() - before));
        d.expectState(pause ? 3 : 0);
        d.expectVersion(QStringLiteral("1.1.0"));
        d.expectLogOnce(kept);
        if (player(d, "play"))
            d.expectPlaying(5000, QStringLiteral("play after the swap"));
        d.expectState(2);
        d.expectVersion(QStringLiteral("1.1.0"));
    };
}

void oddVolumes(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    const int before = d.rig().get(QStringLiteral("/api/volume")).body.value(QStringLiteral("volume")).toInt();
    const QJsonArray refused{150, -5, QStringLiteral("loud"), 50.5, QJsonValue(), true, 1e10};
    for (const QJsonValue& value : refused) {
        const DeviceRig::Answer answer = d.rig().post(QStringLiteral("/api/volume"), {{QStringLiteral("volume"), value}});
        if (answer.status != 400)
            d.fail(QStringLiteral("volume %1 answered %2")
                       .arg(QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact)))
                       .arg(answer.status));
    }
    const int after = d.rig().get(QStringLiteral("/api/volume")).body.value(QStringLiteral("volume")).toInt();
    if (after != before)
        d.fail(QStringLiteral("refused volumes moved the volume from %1 to %2").arg(before).arg(after));
    // 0, 100, then a slider dragged down from 60 to 35: the last value the person chose holds,
    // whatever the library announces on its own thread in the meantime.
    QList<int> volumes{0, 100};
    for (int volume = 60; volume >= 35; --volume)
        volumes << volume;
    for (const int volume : volumes)
        expectAnswer(d, d.rig().post(QStringLiteral("/api/volume"), {{QStringLiteral("volume"), volume}}),
                     QStringLiteral("volume %1").arg(volume));
    d.expectKeepsPlaying(3000, QStringLiteral("the volume changes"));
    const int held = d.rig().get(QStringLiteral("/api/volume")).body.value(QStringLiteral("volume")).toInt();
    if (held != 35)
        d.fail(QStringLiteral("the volume is %1 3 s after the person left it at 35").arg(held));
}
