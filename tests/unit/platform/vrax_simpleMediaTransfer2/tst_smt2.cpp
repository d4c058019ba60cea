// The smt2 sender, its future and its Unix-socket channel against the emulated pipeline.
#include "LogCapture.h"
#include "Smt2TestKit.h"

#include <QTemporaryDir>
#include <QtTest>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

miscUtils::VariantHash pcm(int rate, int channels)
{
    return audioUtils::PcmAudioInfo(rate, channels, audioUtils::PcmFormat::S16LE).toVariant().asHash();
}

// QCOMPARE on the enum would pick smt2::toString through ADL; compare codes instead.
int result(const smt2::Future<smt2::ErrorID>& f)
{
    return waitFor([&] { return f.isReady(); }) ? int(f.get()) : -1;
}

constexpr int code(smt2::ErrorID id)
{
    return int(id);
}

// A whole message as docs/smt2.md lays it out, written byte by byte: u32 payload length, u16
// type, u16 flags 0, then the payload; every integer little-endian.
QByteArray le(quint64 value, int bytes)
{
    QByteArray out;
    for (int i = 0; i < bytes; ++i)
        out += char((value >> (8 * i)) & 0xff);
    return out;
}
QByteArray message(quint16 type, const QByteArray& payload)
{
    return le(quint64(payload.size()), 4) + le(type, 2) + le(0, 2) + payload;
}
QByteArray helloReply(quint8 accepted, quint16 version, quint32 error, const QByteArray& reason)
{
    return message(2, le(accepted, 1) + le(0, 1) + le(version, 2) + le(error, 4) + le(quint64(reason.size()), 4) + reason);
}

// Reads exactly n bytes from fd within 10 s; fewer when the peer stops sending.
QByteArray readExactly(int fd, int n)
{
    QByteArray got;
    pollfd readable{fd, POLLIN, 0};
    while (got.size() < n && ::poll(&readable, 1, 10000) == 1) {
        char buffer[256];
        const ssize_t length = ::read(fd, buffer, size_t(std::min<int>(n - got.size(), sizeof buffer)));
        if (length <= 0)
            break;
        got.append(buffer, int(length));
    }
    return got;
}

} // namespace

Q_DECLARE_METATYPE(smt2::ErrorID)

class TestSmt2 : public QObject
{
    Q_OBJECT

private slots:
    void init() { QVERIFY(m_dir.isValid()); }

    void future()
    {
        // Ready at attach time: the continuation runs inline, on this thread.
        smt2::Promise<int> ready;
        ready.setValue(5);
        ready.setValue(6); // a second completion is ignored
        std::thread::id ranOn;
        auto doubled = ready.future().then([&](smt2::Future<int> f) {
            ranOn = std::this_thread::get_id();
            return f.get() * 2;
        });
        QCOMPARE(ranOn, std::this_thread::get_id());
        QVERIFY(doubled.isReady());
        QCOMPARE(doubled.get(), 10);

        // Pending at attach time: it runs on the completing thread; exceptions are carried.
        smt2::Promise<int> pending;
        std::thread::id continuedOn;
        auto failed = pending.future().then([&](smt2::Future<int> f) -> int {
            continuedOn = std::this_thread::get_id();
            f.get();
            throw std::runtime_error("boom");
        });
        QVERIFY(!pending.future().isReady());
        QVERIFY(!failed.isReady());
        std::thread::id completer;
        std::thread t([&] {
            completer = std::this_thread::get_id();
            pending.setException(std::make_exception_ptr(std::logic_error("first")));
        });
        t.join();
        QCOMPARE(continuedOn, completer);
        QVERIFY(failed.isReady());
        QVERIFY_EXCEPTION_THROWN(failed.get(), std::logic_error); // the original exception, rethrown by get()
        QVERIFY_EXCEPTION_THROWN(smt2::Future<int>().get(), std::logic_error);
        QVERIFY(!smt2::Future<int>().isReady());
    }

    void streamsInOrder()
    {
        PipelineEvents log;
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        pipeline.setHooks(log.hooks());
        QVERIFY(pipeline.start());
        Smt2Client client(socket());
        // Announced while disconnected: kept and sent once streaming starts.
        QCOMPARE(result(client.sender.setAudioSequenceInfo(audioUtils::pcmAudioType(), pcm(48000, 2))),
                 code(smt2::ErrorID::Success));
        QCOMPARE(result(client.sender.connect()), code(smt2::ErrorID::Success));
        QCOMPARE(client.stateList(), (QList<int>{1, 2, 3}));
        QCOMPARE(result(client.sender.connect()), code(smt2::ErrorID::AlreadyConnected));

        client.send(std::vector<unsigned char>(1000, 1));
        client.sender.sendFlush();
        client.send(std::vector<unsigned char>(500, 2));
        client.sender.endCurrentAudioSequence();
        client.sender.endCurrentAudioSequence(); // nothing open: not sent
        QCOMPARE(result(client.send(std::vector<unsigned char>(300, 3))), code(smt2::ErrorID::Success));
        WAIT_VERIFY(log.all().size() >= 8);
        client.sender.disconnect();
        QCOMPARE(client.sender.state(), smt2::Sender::Disconnected);
        WAIT_VERIFY(log.all().contains("disconnected"));
        QCOMPARE(log.all(), (QStringList{"connected", "start 48000/2", "audio 1000", "flush", "audio 500", "end",
                                         "start 48000/2", "audio 300", "end", "disconnected"}));
        QCOMPARE(pipeline.counters().bytes, quint64(1800));
        QCOMPARE(client.stateList(), (QList<int>{1, 2, 3, 0}));
    }

    void refusedOperations()
    {
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        QVERIFY(pipeline.start());
        Smt2Client client(socket());
        QCOMPARE(result(client.send({1, 2})), code(smt2::ErrorID::NotConnected));
        QCOMPARE(result(client.sender.sendFlush()), code(smt2::ErrorID::NotConnected));
        QCOMPARE(result(client.sender.connect()), code(smt2::ErrorID::Success));
        QCOMPARE(result(client.send({1, 2})), code(smt2::ErrorID::NoSequenceInfo));
        QCOMPARE(result(client.send({})), code(smt2::ErrorID::InvalidArgument));
        QCOMPARE(pipeline.counters().bytes, quint64(0));

        smt2::BufferPool pool;
        smt2::AudioSender unbound(&pool);
        QCOMPARE(result(unbound.connect()), code(smt2::ErrorID::NoTransportChannel));
    }

    void connectFailures_data()
    {
        QTest::addColumn<bool>("listening");
        QTest::addColumn<smt2::ErrorID>("expected");
        QTest::addColumn<QStringList>("handshakeFailures");
        QTest::newRow("nobody listens") << false << smt2::ErrorID::ConnectFailed << QStringList();
        QTest::newRow("version refused") << true << smt2::ErrorID::HandshakeFailed
                                         << QStringList{"protocol version 1 not supported"};
    }

    void connectFailures()
    {
        QFETCH(bool, listening);
        QFETCH(smt2::ErrorID, expected);
        QFETCH(QStringList, handshakeFailures);
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        pipeline.refuseProtocolVersion(smt2::ProtocolVersion);
        if (listening)
            QVERIFY(pipeline.start());
        Smt2Client client(socket());
        QCOMPARE(result(client.sender.connect()), code(expected));
        QCOMPARE(client.failures(), handshakeFailures);
        // A refused sender is left handshaking until the receiver hangs up.
        WAIT_VERIFY(client.sender.state() == smt2::Sender::Disconnected);
        QCOMPARE(pipeline.counters().refusedHandshakes, quint64(listening ? 1 : 0));
        QCOMPARE(pipeline.counters().connections, quint64(0));
    }

    // The handshake on the wire against a receiver written here byte by byte: what the sender
    // says first, and what it makes of each answer.
    void handshakeOnTheWire_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("expected");
        QTest::addColumn<QStringList>("handshakeFailures");
        const int failed = code(smt2::ErrorID::HandshakeFailed);
        QByteArray cutShort = helloReply(1, 1, 0, "reason");
        cutShort[0] = char(cutShort[0] - 2); // the reason's last two bytes fall outside the payload
        cutShort.chop(2);
        QTest::newRow("accepted") << helloReply(1, 1, 0, "") << code(smt2::ErrorID::Success) << QStringList();
        QTest::newRow("refused") << helloReply(0, 1, 4, "busy") << failed << QStringList{"busy"};
        QTest::newRow("accepted by another version") << helloReply(1, 2, 0, "") << failed << QStringList{""};
        QTest::newRow("reason cut short") << cutShort << failed << QStringList{"malformed reply"};
        QTest::newRow("too short") << message(2, QByteArray("\x01\x00", 2)) << failed << QStringList{"malformed reply"};
    }

    void handshakeOnTheWire()
    {
        QFETCH(QByteArray, reply);
        QFETCH(int, expected);
        QFETCH(QStringList, handshakeFailures);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socket().c_str(), sizeof address.sun_path - 1);
        const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::unlink(socket().c_str()); // left by an earlier case
        QVERIFY(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
        QVERIFY(::listen(listener, 1) == 0);
        Smt2Client client(socket());
        auto connected = client.sender.connect();
        pollfd acceptable{listener, POLLIN, 0};
        QCOMPARE(::poll(&acceptable, 1, 10000), 1);
        const int receiver = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
        QVERIFY(receiver >= 0);
        const QByteArray hello = message(1, QByteArray("SMT2") + le(1, 2) + le(0, 2) + le(5, 4) + "audio");
        const QByteArray said = readExactly(receiver, hello.size());
        QCOMPARE(said.toHex(), hello.toHex());
        QCOMPARE(::write(receiver, reply.constData(), size_t(reply.size())), ssize_t(reply.size()));
        QCOMPARE(result(connected), expected);
        QCOMPARE(client.failures(), handshakeFailures);
        ::close(receiver);
        WAIT_VERIFY(client.sender.state() == smt2::Sender::Disconnected);
    }

    void backPressure()
    {
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        QVERIFY(pipeline.start());
        Smt2Client client(socket());
        client.sender.setAudioSequenceInfo(audioUtils::pcmAudioType(), pcm(44100, 2));
        QCOMPARE(result(client.sender.connect()), code(smt2::ErrorID::Success));
        pipeline.setReadingPaused(true);

        // One chunk at a time, as the module sends: each waits for the previous one.
        const std::vector<unsigned char> chunk(65536, 7);
        std::uint64_t sent = 0;
        smt2::Future<smt2::ErrorID> last;
        for (int i = 0; i < 1000; ++i) {
            last = client.send(chunk);
            if (!waitFor([&] { return last.isReady(); }, std::chrono::milliseconds(1000)))
                break;
            QCOMPARE(code(last.get()), code(smt2::ErrorID::Success));
            sent += chunk.size();
        }
        QVERIFY2(!last.isReady(), "a receiver that does not read never held the sender back");
        // What a non-reading receiver lets through is the sockets' buffering, not the caller's data.
        QVERIFY2(sent < 4u << 20, qPrintable(QString::number(sent)));
        QCOMPARE(client.pool.buffersInUse(), std::size_t(1));
        QVERIFY(client.pool.bytesAllocated() <= 2 * (chunk.size() + 64));

        // The pool bounds what callers that do not wait can queue.
        std::vector<smt2::Future<smt2::ErrorID>> queued;
        for (std::size_t i = 1; i < client.pool.maxBuffers(); ++i)
            queued.push_back(client.send(chunk));
        QCOMPARE(result(client.send(chunk)), code(smt2::ErrorID::NoBufferAvailable));

        pipeline.setReadingPaused(false);
        QCOMPARE(result(last), code(smt2::ErrorID::Success));
        for (const auto& f : queued)
            QCOMPARE(result(f), code(smt2::ErrorID::Success));
        sent += chunk.size() * client.pool.maxBuffers();
        WAIT_VERIFY(pipeline.counters().bytes == sent);
        QCOMPARE(client.pool.buffersInUse(), std::size_t(0));
    }

private:
    std::string socket() const { return m_dir.filePath("smt2.sock").toStdString(); }
    LogCapture m_log; // also gives log4cplus somewhere to write
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestSmt2)
#include "tst_smt2.moc"
