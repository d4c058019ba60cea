#include "HostOptions.h"

#include <QCommandLineParser>
#include <QFileInfo>

QString HostOptions::usage()
{
    return QStringLiteral(
        "usage: vrax-host --module PATH --data-dir DIR [--settings FILE] [--control-port N]\n"
        "                 [--audio-out wav:FILE|null|alsa[:DEVICE]] [--pace realtime|fast] [--log-config FILE]\n"
        "                 [--trace FILE]\n");
}

bool HostOptions::parse(const QStringList& arguments, HostOptions* options, QString* error)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption module(QStringLiteral("module"), QString(), QStringLiteral("PATH"));
    const QCommandLineOption dataDir(QStringLiteral("data-dir"), QString(), QStringLiteral("DIR"));
    const QCommandLineOption settings(QStringLiteral("settings"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption port(QStringLiteral("control-port"), QString(), QStringLiteral("N"));
    const QCommandLineOption audioOut(QStringLiteral("audio-out"), QString(), QStringLiteral("OUT"));
    const QCommandLineOption pace(QStringLiteral("pace"), QString(), QStringLiteral("PACE"));
    const QCommandLineOption logConfig(QStringLiteral("log-config"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption trace(QStringLiteral("trace"), QString(), QStringLiteral("FILE"));
    parser.addOptions({module, dataDir, settings, port, audioOut, pace, logConfig, trace});
    if (!parser.parse(arguments)) {
        *error = parser.errorText();
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *error = QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first());
        return false;
    }
    HostOptions result;
    result.modulePath = parser.value(module);
    result.dataDir = parser.value(dataDir);
    if (result.modulePath.isEmpty() || result.dataDir.isEmpty()) {
        *error = QStringLiteral("--module and --data-dir are required");
        return false;
    }
    result.settingsFile = parser.value(settings);
    result.logConfig = parser.value(logConfig);
    result.traceFile = parser.value(trace);
    if (parser.isSet(port)) {
        bool ok = false;
        result.controlPort = parser.value(port).toInt(&ok);
        if (!ok || result.controlPort < 0 || result.controlPort > 65535) {
            *error = QStringLiteral("--control-port needs a port number from 0 to 65535, not '%1'").arg(parser.value(port));
            return false;
        }
    }
    if (parser.isSet(audioOut) && !vrax::AudioOutput::parse(parser.value(audioOut).toStdString(), &result.audioOut)) {
        *error = QStringLiteral("--audio-out takes wav:FILE, null or alsa[:DEVICE], not '%1'").arg(parser.value(audioOut));
        return false;
    }
    if (parser.isSet(pace) && !vrax::AudioPipeline::parsePace(parser.value(pace).toStdString(), &result.pace)) {
        *error = QStringLiteral("--pace takes realtime or fast, not '%1'").arg(parser.value(pace));
        return false;
    }
    // Paths are taken relative to where the host was started, before it moves into its data directory.
    for (QString* path : {&result.modulePath, &result.settingsFile, &result.logConfig, &result.traceFile})
        if (!path->isEmpty())
            *path = QFileInfo(*path).absoluteFilePath();
    if (result.audioOut.kind == vrax::AudioOutput::Kind::Wav)
        result.audioOut.target = QFileInfo(QString::fromStdString(result.audioOut.target)).absoluteFilePath().toStdString();
    result.dataDir = QFileInfo(result.dataDir).absoluteFilePath();
    *options = result;
    return true;
}
