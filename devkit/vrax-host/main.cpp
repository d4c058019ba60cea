// vrax-host: an emulated Vrax device on a PC. Loads a module through worker_create, runs the
// desktop platform and offers a control API to people and scripts.
#include "Host.h"
#include "HostOptions.h"

#include "vrax_api/vraxlogging.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {
int s_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = write(s_signalPipe[1], &byte, 1);
}

int fail(const QString& message, int code)
{
    std::fprintf(stderr, "vrax-host: %s\n", qPrintable(message));
    return code;
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    HostOptions options;
    QString error;
    if (!HostOptions::parse(app.arguments(), &options, &error))
        return fail(error + QLatin1Char('\n') + HostOptions::usage(), 2);
    if (!vrax::initLogging(options.logConfig, &error))
        return fail(error, 1);

    // SIGINT/SIGTERM end the event loop through a pipe, so shutdown runs on the main thread.
    if (pipe(s_signalPipe) != 0)
        return fail(QStringLiteral("cannot create the signal pipe"), 1);
    QSocketNotifier notifier(s_signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, [] {
        char byte;
        [[maybe_unused]] const ssize_t got = read(s_signalPipe[0], &byte, 1);
        QCoreApplication::quit();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    Host host(options);
    if (!host.start(&error))
        return fail(error, 1);
    std::printf("control API listening on 127.0.0.1:%d\n", host.controlPort());
    std::fflush(stdout);
    const int code = app.exec();
    host.stop();
    return code;
}
