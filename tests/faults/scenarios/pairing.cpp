// Pairing codes: odd ones, two at once, codes typed during swaps.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <memory>

void oddPairingCodes(FaultDevice& d)
{
    if (!startUnpaired(d))
        return;
    const QJsonArray codes{QString(), QStringLiteral("ABC"), QStringLiteral("ABCDEFGHIJ"), QStringLiteral("ÄÖÜ-ßßß"),
                           QStringLiteral("abc\tde\x01"), QString(10000, QLatin1Char('A')), QStringLiteral("ZZZ-ZZZ"),
                           123456, QJsonObject{{QStringLiteral("string_"), QString(100000, QLatin1Char('7'))}}};
    for (const QJsonValue& code : codes) {
        const DeviceRig::Answer answer = d.rig().setValue(QStringLiteral("orvello/browse/uiPairCode"), code);
        if (answer.status != 200 && answer.status != 422)
            d.fail(QStringLiteral("code %1 answered %2")
                       .arg(QString::fromUtf8(QJsonDocument(QJsonArray{code}).toJson(QJsonDocument::Compact)).left(60))
                       .arg(answer.status));
    }
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("a good code after the odd ones"));
    d.expectPlaying(15000, QStringLiteral("the good code"));
}

void twoCodesAtOnce(FaultDevice& d)
{
    if (!startUnpaired(d))
        return;
    QNetworkAccessManager manager;
    std::unique_ptr<QNetworkReply> first(pairLater(manager, d, kValidCode));
    std::unique_ptr<QNetworkReply> second(pairLater(manager, d, QStringLiteral("GHI-JKL")));
    expectAnswered(d, first.get(), QStringLiteral("the first code"));
    expectAnswered(d, second.get(), QStringLiteral("the second code"));
    d.expectPlaying(15000, QStringLiteral("two codes"));
}

// Codes typed while the library is swapped, again and again: a new version (the other build) is
// offered for each round, short tracks make the swap come while the pairing (about 1 s) is
// still under way. Five codes, each right after a swap was requested.
Scenario codesDuringSwaps(bool badLibrary)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.env = QStringList{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=0.5")};
        if (!d.start(setup))
            return;
        for (int round = 1; round <= 5 && d.survived(); ++round) {
            // A file that runs is never swapped in again: each round offers the other build.
            const QString file = badLibrary ? randomFile(d) : round % 2 ? d.binaries().library110 : d.binaries().library100;
            if ((round == 1 || !badLibrary) && !d.offer(QStringLiteral("9.%1").arg(round), file))
                return;
            const int swaps = d.log().filter(kSwapRequested).size();
            if (!d.observeUntil([&] { return d.log().filter(kSwapRequested).size() > swaps; }, 10000))
                break; // no swap any more, nothing for a code to meet
            QNetworkAccessManager manager;
            std::unique_ptr<QNetworkReply> reply(pairLater(manager, d, kValidCode));
            expectAnswered(d, reply.get(), QStringLiteral("code %1, sent as a swap was requested").arg(round));
        }
        d.expectKeepsPlaying(3000, QStringLiteral("after the codes"));
        d.expectVersion(badLibrary ? QStringLiteral("1.0.0") : QStringLiteral("1.1.0"));
    };
}
