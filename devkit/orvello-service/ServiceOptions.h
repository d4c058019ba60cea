#pragma once

#include "Faults.h"

#include <QString>

// orvello-service's command line.
struct ServiceOptions
{
    QString dir;
    QString version;
    QString library;
    int port = 0; // 0: a free port
    bool stopOnEof = false;
    QString signingKey;
    QString otherSigningKey;
    QString publicUrl;
    Faults faults;

    enum class Parsed { Run, Help, Error };
    // Reads argv (argv[0] first). On Error, error says why and usage whether the usage text
    // belongs before it. Only the form is checked here: whether the files are there is not.
    static Parsed parse(int argc, char** argv, ServiceOptions* options, QString* error, bool* usage);
    static const char* usage();
};
