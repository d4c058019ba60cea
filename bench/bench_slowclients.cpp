// bench_slowclients: what clients that send their request head one byte at a time do to the
// devkit's HTTP servers (vrax-host's control API and orvello-service): how long a normal request
// made meanwhile waits for its answer, and how long the server keeps the slow clients.
//
//   bench_slowclients --work-dir DIR [--clients N] [--wait SECONDS] [--interval MS]
//
// Run it in a private /tmp (tests/support/private-tmp): the host is a whole device.
#include "BenchRig.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

struct Options
{
    int clients = 20;
    int waitSeconds = 30;
    int intervalMs = 1000;
};

// One client that trickles a whole, valid request head: it never stops on its own before the
// head is out, which at one byte a second takes minutes.
struct SlowClient
{
    QTcpSocket socket;
    QByteArray head;
    int sent = 0;
    qint64 droppedAtMs = -1;
};

struct Figures
{
    qint64 answeredAfterMs = -1; // -1: no answer within the wait
    int status = 0;
    std::vector<qint64> droppedAfterMs;
    int connected = 0;
};

Figures measure(int port, const QString& path, const Options& options)
{
    Figures figures;
    QElapsedTimer clock;
    clock.start();
    std::vector<std::unique_ptr<SlowClient>> clients;
    const QByteArray padding(200, 'x');
    for (int i = 0; i < options.clients; ++i) {
        auto client = std::make_unique<SlowClient>();
        client->head = "GET " + path.toLatin1() + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
                       + "\r\nX-Padding: " + padding + "\r\n\r\n";
        client->socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        if (client->socket.waitForConnected(5000)) {
            ++figures.connected;
            client->socket.write(client->head.left(1));
            client->socket.flush();
            client->sent = 1;
        }
        SlowClient* raw = client.get();
        QObject::connect(&client->socket, &QTcpSocket::disconnected, [raw, &clock] {
            if (raw->droppedAtMs < 0)
                raw->droppedAtMs = clock.elapsed();
        });
        clients.push_back(std::move(client));
    }
    QTimer trickle;
    QObject::connect(&trickle, &QTimer::timeout, [&clients] {
        for (const auto& client : clients) {
            if (client->droppedAtMs >= 0 || client->sent >= client->head.size()
                || client->socket.state() != QAbstractSocket::ConnectedState)
                continue;
            client->socket.write(client->head.mid(client->sent++, 1));
        }
    });
    trickle.start(options.intervalMs);

    // The normal request once every slow client has begun its head.
    QEventLoop loop;
    QTimer::singleShot(2 * options.intervalMs + 500, &loop, &QEventLoop::quit);
    loop.exec();
    const qint64 askedAtMs = clock.elapsed();
    QNetworkAccessManager manager;
    QNetworkReply* reply = manager.get(QNetworkRequest(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(path))));
    QObject::connect(reply, &QNetworkReply::finished, [&] {
        if (reply->error() == QNetworkReply::OperationCanceledError)
            return; // given up at the end of the wait
        figures.answeredAfterMs = clock.elapsed() - askedAtMs;
        figures.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    });
    QTimer::singleShot(options.waitSeconds * 1000, &loop, &QEventLoop::quit);
    loop.exec();
    reply->abort();
    delete reply;
    for (const auto& client : clients)
        if (client->droppedAtMs >= 0)
            figures.droppedAfterMs.push_back(client->droppedAtMs);
    std::sort(figures.droppedAfterMs.begin(), figures.droppedAfterMs.end());
    return figures;
}

void print(const char* what, const Figures& figures, const Options& options)
{
    std::printf("%s: %d slow clients connected, one byte each every %d ms\n", what, figures.connected, options.intervalMs);
    if (figures.answeredAfterMs < 0)
        std::printf("  normal request: no answer within %d s\n", options.waitSeconds);
    else
        std::printf("  normal request: HTTP %d after %lld ms\n", figures.status, static_cast<long long>(figures.answeredAfterMs));
    if (figures.droppedAfterMs.empty()) {
        std::printf("  slow clients dropped by the server: none within %d s\n", options.waitSeconds);
    } else {
        std::printf("  slow clients dropped by the server: %zu, after %.1f s (first) to %.1f s (last)\n",
                    figures.droppedAfterMs.size(), double(figures.droppedAfterMs.front()) / 1000,
                    double(figures.droppedAfterMs.back()) / 1000);
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Slow clients against vrax-host's control API and orvello-service"));
    parser.addHelpOption();
    const QCommandLineOption workDir(QStringLiteral("work-dir"), QStringLiteral("Directory for the device's files."),
                                     QStringLiteral("DIR"));
    const QCommandLineOption clients(QStringLiteral("clients"), QStringLiteral("Slow clients (20)."), QStringLiteral("N"),
                                     QStringLiteral("20"));
    const QCommandLineOption wait(QStringLiteral("wait"), QStringLiteral("Seconds to wait for the normal request (30)."),
                                  QStringLiteral("SECONDS"), QStringLiteral("30"));
    const QCommandLineOption interval(QStringLiteral("interval"), QStringLiteral("Milliseconds between two bytes (1000)."),
                                      QStringLiteral("MS"), QStringLiteral("1000"));
    parser.addOptions({workDir, clients, wait, interval});
    parser.process(app);
    if (!parser.isSet(workDir)) {
        std::fprintf(stderr, "bench_slowclients: --work-dir is required\n");
        return 2;
    }
    Options options;
    options.clients = std::max(1, parser.value(clients).toInt());
    options.waitSeconds = std::max(1, parser.value(wait).toInt());
    options.intervalMs = std::max(1, parser.value(interval).toInt());

    QDir(parser.value(workDir)).removeRecursively();
    DeviceRig rig(bench::devicePaths(), parser.value(workDir));
    QString error;
    if (!rig.startService(QStringLiteral("1.0.0"), bench::referenceLibrary(QStringLiteral("1.0.0")), &error)
        || !rig.startHost({{QStringLiteral("settings/orvello/versionUrl"), rig.versionUrl()}}, QStringLiteral("null"),
                          QStringLiteral("fast"), {}, &error)) {
        std::fprintf(stderr, "bench_slowclients: %s\n", qPrintable(error));
        return 1;
    }
    print("vrax-host (GET /api/pipeline)", measure(rig.controlPort(), QStringLiteral("/api/pipeline"), options), options);
    print("orvello-service (GET /admin/state)", measure(rig.servicePort(), QStringLiteral("/admin/state"), options), options);
    return rig.stopHost() == 0 ? 0 : 1;
}
