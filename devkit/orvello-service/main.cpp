// orvello-service: the Orvello Streams update service on loopback, for tests and the demo.
// Serves the configuration document (signed, given a key) and the library files of one
// directory, logs every request with the device headers, and fails on demand.
//
// Here the process: the command line's checks, the signals and the run. ServiceOptions reads
// the command line, Faults the failure modes, Service serves HTTP, Signer signs the documents.
#include "Service.h"
#include "ServiceOptions.h"

#include <QFileInfo>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "orvello-service: %s\n", qPrintable(message));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    ServiceOptions options;
    QString error;
    bool usage = false;
    switch (ServiceOptions::parse(argc, argv, &options, &error, &usage)) {
    case ServiceOptions::Parsed::Help:
        std::fputs(ServiceOptions::usage(), stdout);
        return 0;
    case ServiceOptions::Parsed::Error:
        if (usage)
            std::fputs(ServiceOptions::usage(), stderr);
        return fail(error);
    case ServiceOptions::Parsed::Run:
        break;
    }
    const QString& dir = options.dir;
    QString publicUrl = options.publicUrl;
    if (!QFileInfo(dir).isDir())
        return fail(QStringLiteral("'%1' is not a directory").arg(dir));
    if (!checkLibrary(dir, options.library, &error))
        return fail(error);
    Keys keys;
    if (!options.signingKey.isEmpty() && !(keys.signer = Signer::load(options.signingKey, &error)))
        return fail(error);
    if (!options.otherSigningKey.isEmpty() && !(keys.otherSigner = Signer::load(options.otherSigningKey, &error)))
        return fail(error);
    error = missingForFaults(options.faults, keys.otherSigner != nullptr);
    if (!error.isEmpty())
        return fail(error);
    const QUrl parsedPublicUrl(publicUrl, QUrl::StrictMode);
    if (!publicUrl.isEmpty() && (!parsedPublicUrl.isValid() || parsedPublicUrl.host().isEmpty()))
        return fail(QStringLiteral("--public-url needs an absolute URL such as https://localhost:8443, not '%1'").arg(publicUrl));
    while (publicUrl.endsWith(QLatin1Char('/')))
        publicUrl.chop(1);

    // Signals are taken by one thread of our own, so the server's threads never see them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Service service(dir, options.version, options.library, options.faults, keys);
    int boundPort = 0;
    if (!service.bind(options.port, &boundPort))
        return fail(QStringLiteral("cannot listen on 127.0.0.1:%1 (port busy or not allowed)").arg(options.port));
    service.setPort(boundPort);
    service.setPublicUrl(publicUrl);
    std::printf("listening on 127.0.0.1:%d\n", boundPort);
    std::fflush(stdout);

    std::atomic<bool> stopping{false};
    std::promise<void> finished;
    std::shared_future<void> whenFinished = finished.get_future().share();
    std::thread signalThread([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (whenFinished.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            return;
        stopping = true;
        service.stop();
        // The server waits for connections that clients keep alive and for delayed answers;
        // nothing is lost by not waiting for them.
        if (whenFinished.wait_for(std::chrono::milliseconds(500)) != std::future_status::ready) {
            std::fflush(stdout);
            std::_Exit(0);
        }
    });
    if (options.stopOnEof) {
        // Blocked in read() until the other end closes; the process ends without joining it.
        std::thread([] {
            char buffer[256];
            while (std::fread(buffer, 1, sizeof buffer, stdin) > 0) {
            }
            kill(getpid(), SIGTERM);
        }).detach();
    }
    const bool ok = service.run();
    finished.set_value();
    if (!stopping)
        pthread_kill(signalThread.native_handle(), SIGTERM);
    signalThread.join();
    if (!ok && !stopping)
        return fail(QStringLiteral("the server stopped unexpectedly"));
    return 0;
}
