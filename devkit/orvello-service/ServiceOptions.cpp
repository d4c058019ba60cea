#include "ServiceOptions.h"

const char* ServiceOptions::usage()
{
    return "usage: orvello-service --dir DIR --version VERSION --library FILE [--port N] [--fail MODE ...]\n"
           "                       [--signing-key FILE] [--other-signing-key FILE] [--public-url URL]\n"
           "                       [--stop-on-eof]\n"
           "  --dir DIR          directory whose files are served under /files/\n"
           "  --version VERSION  library version that the configuration document offers\n"
           "  --library FILE     file in DIR that the document links to\n"
           "  --port N           port on 127.0.0.1 (default 0: a free port)\n"
           "  --signing-key FILE Ed25519 private key (PEM) that signs every document\n"
           "  --other-signing-key FILE  a second key, for the signature-other-key mode\n"
           "  --public-url URL   where devices reach this service (links start with it;\n"
           "                     default http://127.0.0.1:PORT), for a TLS proxy in front\n"
           "  --fail MODE        config-status=CODE library-status=CODE config-delay=MS library-delay=MS\n"
           "                     library-stall=MS config-empty config-not-json config-missing-fields\n"
           "                     config-wrong-types config-long-version library-truncated library-oversized\n"
           "                     library-oversized-chunked wrong-checksum uppercase-checksum\n"
           "                     signature-missing signature-other-key signature-version=TEXT\n"
           "                     config-endless config-drip=MS config-control-version config-control-link\n"
           "  --stop-on-eof      stop when standard input ends (the starting process went away)\n";
}

ServiceOptions::Parsed ServiceOptions::parse(int argc, char** argv, ServiceOptions* options, QString* error, bool* usage)
{
    ServiceOptions result;
    *usage = false;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h"))
            return Parsed::Help;
        if (arg == QLatin1String("--stop-on-eof")) {
            result.stopOnEof = true;
            continue;
        }
        if (i + 1 >= argc) {
            *usage = true;
            *error = QStringLiteral("%1 needs a value").arg(arg);
            return Parsed::Error;
        }
        const QString value = QString::fromLocal8Bit(argv[++i]);
        if (arg == QLatin1String("--dir"))
            result.dir = value;
        else if (arg == QLatin1String("--version"))
            result.version = value;
        else if (arg == QLatin1String("--library"))
            result.library = value;
        else if (arg == QLatin1String("--signing-key"))
            result.signingKey = value;
        else if (arg == QLatin1String("--other-signing-key"))
            result.otherSigningKey = value;
        else if (arg == QLatin1String("--public-url"))
            result.publicUrl = value;
        else if (arg == QLatin1String("--port")) {
            if (!parseNumber(value, 0, 65535, &result.port)) {
                *error = QStringLiteral("--port needs a number from 0 to 65535, not '%1'").arg(value);
                return Parsed::Error;
            }
        } else if (arg == QLatin1String("--fail")) {
            if (!addFault(result.faults, value, error))
                return Parsed::Error;
        } else {
            *usage = true;
            *error = QStringLiteral("unknown argument '%1'").arg(arg);
            return Parsed::Error;
        }
    }
    if (result.dir.isEmpty() || result.version.isEmpty() || result.library.isEmpty()) {
        *usage = true;
        *error = QStringLiteral("--dir, --version and --library are required");
        return Parsed::Error;
    }
    *options = result;
    return Parsed::Run;
}
