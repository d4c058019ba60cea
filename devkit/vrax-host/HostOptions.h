#pragma once

#include "vrax_audio_pipeline/audiopipeline.h"

#include <QString>
#include <QStringList>

// vrax-host's command line, read once into the types the emulated platform takes.
struct HostOptions
{
    QString modulePath;
    QString dataDir;
    QString settingsFile;        // empty: <data dir>/settings.json, created when missing
    int controlPort = 0;         // 0: a free port
    vrax::AudioOutput audioOut;  // a WAV file's path is absolute
    vrax::AudioPace pace = vrax::AudioPace::Realtime;
    QString logConfig;
    QString traceFile;           // empty: no trace

    // Parses the arguments (argv[0] first); false with a message for the user on error.
    static bool parse(const QStringList& arguments, HostOptions* options, QString* error);
    static QString usage();
};
