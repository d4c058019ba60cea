// OrvelloAudioTransfer over a real Unix socket to the emulated pipeline at /tmp/orvello.
#include "LogCapture.h"
#include "OrvelloAudioTransfer.h"
#include "Smt2TestKit.h"
#include "TestFiles.h"

#include "smt2/sender.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>

using log4cplus::DEBUG_LOG_LEVEL;
using log4cplus::INFO_LOG_LEVEL;
using log4cplus::WARN_LOG_LEVEL;

namespace {

const std::string kSocket = "/tmp/orvello/smt2socketaddress";
const QString kNotConnected =
    QStringLiteral("Leave OrvelloAudioTransfer::processData(const char*, size_t): Not connected");

QString written(int n)
{
    return QStringLiteral("Leave OrvelloAudioTransfer::processData(const char*, size_t): written: %1").arg(n);
}

// Distinct bytes, so a lost, repeated or reordered chunk shows in the file.
QByteArray pcmPattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 x = 12345;
    for (int i = 0; i < size; ++i) {
        x = x * 1664525u + 1013904223u;
        bytes[i] = char(x >> 24);
    }
    return bytes;
}

std::unique_ptr<vrax::AudioPipeline> startPipeline(const QString& wav, PipelineEvents* events = nullptr,
                                                   bool refuseVersion = false)
{
    auto pipeline = std::make_unique<vrax::AudioPipeline>(
        kSocket, wav.isEmpty() ? vrax::makeNullSink() : vrax::makeWavSink(wav.toStdString()));
    if (refuseVersion)
        pipeline->refuseProtocolVersion(smt2::ProtocolVersion);
    if (events)
        pipeline->setHooks(events->hooks());
    std::string error;
    if (!pipeline->start(&error))
        qWarning("pipeline: %s", error.c_str());
    return pipeline;
}

QStringList threadNames()
{
    QStringList names;
    for (const QString& task : QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm("/proc/self/task/" + task + "/comm");
        if (comm.open(QIODevice::ReadOnly))
            names << QString::fromUtf8(comm.readAll()).trimmed();
    }
    return names;
}

bool answered(const CMVoidReply& reply)
{
    return waitFor([&] { return reply.isFinished(); });
}

// Offers data from offset on until processData took all of it, as the player library does.
int feed(OrvelloAudioTransfer& transfer, const QByteArray& data, int offset, int size)
{
    int sent = 0;
    waitFor([&] {
        while (sent < size) {
            const int n = transfer.processData(data.constData() + offset + sent, size_t(size - sent));
            if (n == 0)
                return false;
            sent += n;
        }
        return true;
    });
    return sent;
}

} // namespace

class TestOrvelloAudioTransfer : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(QDir().mkpath("/tmp/orvello"));
        m_log.clear();
    }

    void cleanup() { QFile::remove(wavPath()); }

    void idleAfterConstruction()
    {
        auto transfer = std::make_unique<OrvelloAudioTransfer>();
        QCOMPARE(m_log.messages(DEBUG_LOG_LEVEL, "OrvelloAudioTransfer"),
                 QStringList{"Setting socket address: /tmp/orvello/smt2socketaddress"});
        QVERIFY(!transfer->connected());
        QVERIFY(threadNames().contains("orvelloAudioLoo")); // the kernel keeps 15 bytes of the name
        const QByteArray data(64, 'x');
        QCOMPARE(transfer->processData(data.constData(), size_t(data.size())), 0);
        QCOMPARE(m_log.count(DEBUG_LOG_LEVEL, kNotConnected), 1);
        QVERIFY(m_log.messages(INFO_LOG_LEVEL, "OrvelloAudioTransfer").isEmpty());
    }

    void streamsToWav()
    {
        PipelineEvents events(true);
        auto pipeline = startPipeline(wavPath(), &events);
        OrvelloAudioTransfer transfer;
        transfer.setStreamFormat(2, 44100);
        CMReply<void> reply = transfer.connect();
        QVERIFY(answered(reply));
        QVERIFY2(!reply.isError(), qPrintable(reply.error().text()));
        QVERIFY(transfer.connected());
        QCOMPARE(m_log.messages(INFO_LOG_LEVEL, "OrvelloAudioTransfer"),
                 (QStringList{"SMT changed state from 0 to 1", "SMT changed state from 1 to 2",
                              "SMT changed state from 2 to 3"}));
        QCOMPARE(m_log.count(DEBUG_LOG_LEVEL, "SMT connected"), 1);

        const QByteArray pcm = pcmPattern(1000000);
        // No data while the last chunk is on its way; the first call takes one chunk at most.
        int accepted = 0;
        WAIT_VERIFY((accepted = transfer.processData(pcm.constData(), 200000)) != 0);
        QCOMPARE(accepted, 131072);
        QCOMPARE(m_log.count(DEBUG_LOG_LEVEL, written(131072)), 1);
        QCOMPARE(transfer.processData(pcm.constData(), 0), 0);
        QVERIFY(m_log.contains(DEBUG_LOG_LEVEL, written(0)));
        // A size beyond int's range is one chunk too, never a negative one.
        WAIT_VERIFY(transfer.processData(pcm.constData() + accepted, size_t(1) << 31) != 0);
        QCOMPARE(m_log.count(DEBUG_LOG_LEVEL, written(131072)), 2);
        accepted += 131072;

        accepted += feed(transfer, pcm, accepted, 400000 - accepted);
        transfer.flush();
        accepted += feed(transfer, pcm, accepted, pcm.size() - accepted);
        QCOMPARE(accepted, pcm.size());
        transfer.sendStreamEnd();
        WAIT_VERIFY(events.all().contains("end"));
        QCOMPARE(pipeline->counters().format, audioUtils::PcmAudioInfo(44100, 2, audioUtils::PcmFormat::S16LE));
        QCOMPARE(events.all(), (QStringList{"connected", "start 44100/2", "audio", "flush", "audio", "end"}));

        pipeline->stop(); // finishes the file
        const WavFile file = readWav(wavPath());
        QCOMPARE(file.rate, 44100);
        QCOMPARE(file.channels, 2);
        QCOMPARE(file.bytes().size(), pcm.size());
        QVERIFY(file.bytes() == pcm);
    }

    // A silent local program reached the pipeline first: the transfer waits in the handshake
    // behind it, and once the pipeline drops the program, the same connect completes.
    void handshakingIsConnectedButNotStreaming()
    {
        auto pipeline = startPipeline(QString());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kSocket.c_str(), sizeof address.sun_path - 1);
        const int stranger = ::socket(AF_UNIX, SOCK_STREAM, 0);
        QCOMPARE(::connect(stranger, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        OrvelloAudioTransfer transfer;
        CMReply<void> reply = transfer.connect();
        WAIT_VERIFY(m_log.contains(INFO_LOG_LEVEL, "SMT changed state from 1 to 2"));
        QVERIFY(transfer.connected());
        const QByteArray data(64, 'x');
        QCOMPARE(transfer.processData(data.constData(), size_t(data.size())), 0);
        QVERIFY(m_log.contains(DEBUG_LOG_LEVEL, kNotConnected));
        QVERIFY(!reply.isFinished());
        QVERIFY(answered(reply));
        ::close(stranger);
        QVERIFY(!reply.isError());
        QCOMPARE(pipeline->counters().droppedStrangers, quint64(1));
        QCOMPARE(m_log.messages(INFO_LOG_LEVEL, "OrvelloAudioTransfer"),
                 QStringList({"SMT changed state from 0 to 1", "SMT changed state from 1 to 2", "SMT changed state from 2 to 3"}));
        transfer.setStreamFormat(2, 44100);
        WAIT_VERIFY(transfer.processData(data.constData(), size_t(data.size())) == data.size());
        transfer.close();
        QVERIFY(!transfer.connected());
        QCOMPARE(m_log.messages(INFO_LOG_LEVEL, "OrvelloAudioTransfer").last(), QStringLiteral("SMT changed state from 3 to 0"));
    }

    void backPressure()
    {
        auto pipeline = startPipeline(wavPath());
        OrvelloAudioTransfer transfer;
        transfer.setStreamFormat(2, 48000);
        QVERIFY(answered(transfer.connect()));
        pipeline->setReadingPaused(true);

        // A receiver that does not read: processData must soon take nothing more.
        const QByteArray pcm = pcmPattern(8 << 20);
        int accepted = 0;
        auto idleSince = std::chrono::steady_clock::now();
        while (accepted < pcm.size() && std::chrono::steady_clock::now() - idleSince < std::chrono::milliseconds(300)) {
            const int n = transfer.processData(pcm.constData() + accepted, size_t(pcm.size() - accepted));
            if (n > 0)
                idleSince = std::chrono::steady_clock::now();
            accepted += n;
            std::this_thread::yield();
        }
        QVERIFY2(accepted < 4 << 20, qPrintable(QString::number(accepted)));

        pipeline->setReadingPaused(false);
        accepted += feed(transfer, pcm, accepted, pcm.size() - accepted);
        transfer.sendStreamEnd();
        WAIT_VERIFY(pipeline->counters().bytes == quint64(accepted));
        pipeline->stop();
        QVERIFY(readWav(wavPath()).bytes() == pcm.left(accepted));
    }

    void connectFailures_data()
    {
        QTest::addColumn<bool>("listening");
        QTest::addColumn<QString>("error");
        QTest::addColumn<int>("handshakeWarnings");
        QTest::newRow("nobody listens") << false << "ConnectFailed" << 0;
        QTest::newRow("version refused") << true << "HandshakeFailed" << 1;
    }

    void connectFailures()
    {
        QFETCH(bool, listening);
        QFETCH(QString, error);
        QFETCH(int, handshakeWarnings);
        std::unique_ptr<vrax::AudioPipeline> pipeline;
        if (listening)
            pipeline = startPipeline(QString(), nullptr, true);
        OrvelloAudioTransfer transfer;
        CMReply<void> reply = transfer.connect();
        QVERIFY(answered(reply));
        QVERIFY(reply.isError());
        QCOMPARE(reply.error().name(), CMError::DefaultName());
        QCOMPARE(reply.error().message().source(), QStringLiteral("Failed to connect"));
        QCOMPARE(reply.error().title(), CMError::DefaultTitle());
        QCOMPARE(m_log.messages(DEBUG_LOG_LEVEL, "OrvelloAudioTransfer").filter("SMT "),
                 QStringList{"SMT not connected, error=" + error});
        QCOMPARE(m_log.messages(WARN_LOG_LEVEL, "OrvelloAudioTransfer"),
                 handshakeWarnings ? QStringList{"SMT sender handshake failed"} : QStringList());
        WAIT_VERIFY(!transfer.connected());
        QCOMPARE(m_log.messages(INFO_LOG_LEVEL, "OrvelloAudioTransfer").last(),
                 QString("SMT changed state from %1 to 0").arg(listening ? 2 : 1));
    }

    void receiverDiesAndReturns()
    {
        auto pipeline = startPipeline(QString());
        OrvelloAudioTransfer transfer;
        transfer.setStreamFormat(1, 22050);
        QVERIFY(answered(transfer.connect()));
        const QByteArray pcm = pcmPattern(300000);
        QCOMPARE(feed(transfer, pcm, 0, pcm.size()), pcm.size());

        pipeline->stop();
        WAIT_VERIFY(!transfer.connected());
        QVERIFY(m_log.contains(INFO_LOG_LEVEL, "SMT changed state from 3 to 0"));
        m_log.clear();
        QCOMPARE(transfer.processData(pcm.constData(), size_t(pcm.size())), 0);
        QVERIFY(m_log.contains(DEBUG_LOG_LEVEL, kNotConnected));

        pipeline = startPipeline(QString());
        CMReply<void> reply = transfer.connect();
        QVERIFY(answered(reply));
        QVERIFY(!reply.isError());
        QCOMPARE(feed(transfer, pcm, 0, pcm.size()), pcm.size());
        WAIT_VERIFY(pipeline->counters().bytes == quint64(pcm.size()));
        QCOMPARE(pipeline->counters().format.sampleRate(), 22050);
    }

    void destructionDisconnectsFirst()
    {
        PipelineEvents events(true);
        auto pipeline = startPipeline(QString(), &events);
        auto transfer = std::make_unique<OrvelloAudioTransfer>();
        QVERIFY(answered(transfer->connect()));
        QVERIFY(threadNames().contains("orvelloAudioLoo"));
        m_log.clear();
        transfer.reset();
        QCOMPARE(m_log.messages(INFO_LOG_LEVEL, "OrvelloAudioTransfer"), QStringList{"SMT changed state from 3 to 0"});
        // A joined thread can stay listed for a moment while the kernel (or an emulator) finishes it.
        WAIT_VERIFY(!threadNames().contains("orvelloAudioLoo"));
        WAIT_VERIFY(events.all().contains("disconnected"));
    }

private:
    QString wavPath() const { return QStringLiteral("/tmp/orvello/tst_out.wav"); }
    LogCapture m_log;
};

QTEST_GUILESS_MAIN(TestOrvelloAudioTransfer)
#include "tst_orvelloaudiotransfer.moc"
