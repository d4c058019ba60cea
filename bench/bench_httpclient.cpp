// Prints throughput and peak memory of HttpClient downloads from orvello-service on loopback:
// bodies handed on piece by piece (immediate read) stay out of memory, a whole-body read does not.
#include "OrvelloServiceProcess.h"

#include "http/httpclient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {
// Peak resident set size of this process so far, in KiB.
long peakRssKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

void run(OrvelloServiceProcess& service, const char* name, const QStringList& faults, bool immediate, int limit)
{
    if (!service.setState(QJsonObject{{"fail", QJsonArray::fromStringList(faults)}})) {
        std::fprintf(stderr, "cannot set the service's failure modes\n");
        return;
    }
    HttpClient client(nullptr, HttpClient::Http1_1, true);
    HttpClientOptions options;
    options.setImmediateRead(immediate);
    options.setReadSizeLimit(limit);
    qint64 bytes = 0;
    int largestPiece = 0;
    int state = -1;
    QEventLoop loop;
    const long before = peakRssKiB();
    QElapsedTimer clock;
    clock.start();
    client.get(VraxUrl::fromEncoded(service.url("/files/lib.so")), options, [&](const HttpClientResult& r) {
        bytes += r.output().size();
        largestPiece = std::max(largestPiece, int(r.output().size()));
        if (r.state() != HttpClientResult::DataAvailable) {
            state = r.state();
            loop.quit();
        }
    });
    loop.exec();
    const double seconds = clock.nsecsElapsed() / 1e9;
    std::printf("%-34s state %d  %9lld bytes  %7.3f s  %8.1f MiB/s  largest piece %7d  peak RSS +%ld KiB\n", name,
                state, static_cast<long long>(bytes), seconds, bytes / seconds / (1 << 20), largestPiece,
                peakRssKiB() - before);
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    QFile file(dir.filePath(QStringLiteral("lib.so")));
    if (!dir.isValid() || !file.open(QIODevice::WriteOnly) || !file.resize(16 * 1024 * 1024)) {
        std::fprintf(stderr, "cannot create the 16 MiB test file\n");
        return 1;
    }
    file.close();
    OrvelloServiceProcess service;
    QString error;
    if (!service.start({"--dir", dir.path(), "--version", "1.0.0", "--library", "lib.so"}, &error)) {
        std::fprintf(stderr, "cannot start orvello-service: %s\n", qPrintable(error));
        return 1;
    }
    const int limit = 16 * 1024 * 1024;
    // Peak RSS only grows, so the runs go from the least memory to the most.
    run(service, "16 MiB, pieces", {}, true, 0);
    run(service, "over 16 MiB by length, pieces", {"library-oversized"}, true, limit);
    run(service, "over 16 MiB by count, pieces", {"library-oversized-chunked"}, true, limit);
    run(service, "16 MiB, whole body", {}, false, 0);
    return 0;
}
