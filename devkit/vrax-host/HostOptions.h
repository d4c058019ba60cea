#pragma once

#include <QString>
#include <QStringList>

// vrax-host's command line.
struct HostOptions
{
    enum class AudioOut { Wav, Null, Alsa };
    enum class Pace { Realtime, Fast };

    QString modulePath;
    QString dataDir;
    QString settingsFile;        // empty: <data dir>/settings.json, created when missing
    int controlPort = 0;         // 0: a free port
    AudioOut audioOut = AudioOut::Null;
    QString audioTarget;         // WAV file or ALSA device
    Pace pace = Pace::Realtime;
    QString logConfig;
    QString traceFile;           // empty: no trace

    // Parses the arguments (argv[0] first); false with a message for the user on error.
    static bool parse(const QStringList& arguments, HostOptions* options, QString* error);
    static QString usage();
};
