// The settings file: read-only, not JSON, values of the wrong type.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include "TestFiles.h"

#include <QJsonDocument>

// The token cannot be written while pairing; the file is writable again before the restart, so
// a retry saves it and the device comes back paired.
void settingsReadOnly(FaultDevice& d)
{
    if (!startUnpaired(d) || !d.mountReadOnly(d.settingsFile()))
        return;
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("the pairing"));
    d.expectPlaying(15000, QStringLiteral("the pairing"));
    d.expectLog(QStringLiteral("ERROR [Vrax] Cannot write settings file ") + d.settingsFile());
    d.expectLogOnce(QStringLiteral("; settings/orvello/token keeps its new value unsaved until the file can be written"));
    if (!d.unmount(d.settingsFile()))
        return;
    // Retries come 1, 2, 4, 8, 16, 32 s apart: the next is at most 32 s away.
    d.expectLog(QStringLiteral("INFO  [Vrax] Settings file %1 written; saved at last: ").arg(d.settingsFile()), 35000);
    const QJsonObject saved = QJsonDocument::fromJson(fileBytes(d.settingsFile())).object();
    if (saved.value(QStringLiteral("settings/orvello/token")).toString().isEmpty())
        d.fail(QStringLiteral("the settings file has no token after the retry"));
    d.expectCleanExit();
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart, paired without a code"));
    d.expectLogAtMost(QStringLiteral("Waiting for pairing code before initializing"), 1);
}

// A settings file that is not JSON any more: the host refuses it with a message that names it.
void settingsNotJson(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.expectCleanExit();
    const QByteArray settings = fileBytes(d.settingsFile());
    if (!writeBytes(d.settingsFile(), settings.left(settings.size() / 2)))
        return d.setupError(QStringLiteral("cannot cut %1").arg(d.settingsFile()));
    QString error;
    if (d.rig().restartHost(&error))
        return d.fail(QStringLiteral("vrax-host started on a damaged settings file"));
    const int code = d.rig().waitForHostExit(5000);
    const QString said = d.rig().hostLog().join(QLatin1Char('\n'));
    if (code != 1 || !said.contains(d.settingsFile()) || !said.contains(QStringLiteral("not valid JSON")))
        d.fail(QStringLiteral("vrax-host ended with status %1 (-1: crashed), saying: %2").arg(code).arg(said.trimmed()));
}

// Settings of the wrong type read as 0: the library refuses the format; the device says so
// and keeps answering.
void settingsWrongTypes(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.expectCleanExit();
    QJsonObject settings = QJsonDocument::fromJson(fileBytes(d.settingsFile())).object();
    settings.insert(QStringLiteral("settings/orvello/outputSampleRate"), QStringLiteral("fast"));
    if (!writeBytes(d.settingsFile(), QJsonDocument(settings).toJson()))
        return d.setupError(QStringLiteral("cannot write %1").arg(d.settingsFile()));
    if (!d.restartHost())
        return;
    d.expectLog(QStringLiteral("Unable to allocate OPlayer. Error: 23"), 10000);
    d.expectLog(kNoLibrary);
    d.observe(2000);
    d.expectState(0);
}
