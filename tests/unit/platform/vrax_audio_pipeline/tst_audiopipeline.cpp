// The emulated audio pipeline: WAV files per format, one sender at a time, socket path
// handling and underrun counting, driven by a real smt2 sender; and what it does with a local
// program that is not a sender (a stranger of the same user, a program of another user).
#include "LogCapture.h"
#include "Smt2TestKit.h"
#include "TestFiles.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include "smt2wire.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace {

sockaddr_un unixAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// This process's peak resident memory, in KiB, since the last resetPeakMemory().
long peakMemoryKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

bool resetPeakMemory()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    return clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
}

// Connects as uid 65534 in a child process: 0 when connect() is refused with EACCES, 1 when the
// connection is made and the other end closes it, 2 otherwise. Only system calls in the child.
int connectAsNobody(const std::string& path)
{
    const sockaddr_un address = unixAddress(path);
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)
            _exit(3);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            _exit(errno == EACCES ? 0 : 2);
        pollfd readable{fd, POLLIN, 0};
        char byte;
        _exit(poll(&readable, 1, 10000) == 1 && read(fd, &byte, 1) == 0 ? 1 : 2);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

} // namespace

class TestAudioPipeline : public QObject
{
    Q_OBJECT

private slots:
    void wavFilesFollowFormat()
    {
        const QString wav = m_dir.filePath("out.wav");
        vrax::AudioPipeline pipeline(socket(), vrax::makeAudioSink("wav:" + wav.toStdString(), nullptr));
        QVERIFY(pipeline.start());
        Smt2Client client(socket());
        QVERIFY(client.connect());
        const QByteArray a1(4000, 'a'), a2(2001, 'b'), b(3000, 'c'), a3(1000, 'd');
        client.format(44100, 2);
        QVERIFY(client.sendAndWait(a1));
        client.sender.endCurrentAudioSequence();
        client.format(44100, 2); // same format: the same file goes on
        QVERIFY(client.sendAndWait(a2));
        QVERIFY(client.sendAndWait(QByteArray(3, 'b'))); // completes the frame split across messages
        client.format(48000, 1);
        QVERIFY(client.sendAndWait(b));
        client.format(44100, 2); // back: a third file, not the first again
        QVERIFY(client.sendAndWait(a3));
        WAIT_VERIFY(pipeline.counters().bytes == quint64(a1.size() + a2.size() + 3 + b.size() + a3.size()));
        QCOMPARE(pipeline.counters().sequences, quint64(4));
        QCOMPARE(pipeline.counters().format, audioUtils::PcmAudioInfo(44100, 2, audioUtils::PcmFormat::S16LE));
        pipeline.stop();

        const WavFile first = readWav(wav), second = readWav(m_dir.filePath("out-2.wav")),
                      third = readWav(m_dir.filePath("out-3.wav"));
        QCOMPARE(first.rate, 44100);
        QCOMPARE(first.channels, 2);
        QVERIFY(first.bytes() == a1 + a2 + QByteArray(3, 'b'));
        QCOMPARE(second.rate, 48000);
        QCOMPARE(second.channels, 1);
        QVERIFY(second.bytes() == b);
        QCOMPARE(third.rate, 44100);
        QVERIFY(third.bytes() == a3);
        QVERIFY(!QFile::exists(m_dir.filePath("out-4.wav")));
    }

    // A recording of an afternoon with the music stopped now and then: every play after a stop
    // goes on at the end of the file, and the header counts what is there after each sequence
    // and each second of audio, so a crash loses at most the last second.
    void wavKeepsEverythingAcrossStops()
    {
        const QString wav = m_dir.filePath("afternoon.wav");
        vrax::AudioPipeline pipeline(socket(), vrax::makeAudioSink("wav:" + wav.toStdString(), nullptr));
        constexpr int kSecond = 44100 * 4;
        QByteArray recorded;
        for (int play = 0; play < 3; ++play) {
            QVERIFY(pipeline.start());
            Smt2Client client(socket());
            QVERIFY(client.connect());
            client.format(44100, 2);
            QByteArray piece(kSecond * 3 / 2, Qt::Uninitialized);
            for (int i = 0; i < piece.size(); ++i)
                piece[i] = char(play * 31 + i % 251);
            QVERIFY(client.sendAndWait(piece));
            // Mid-sequence the header already counts the first second.
            WAIT_VERIFY(wavDataSize(wav) >= recorded.size() + kSecond);
            client.sender.endCurrentAudioSequence();
            recorded += piece;
            WAIT_VERIFY(wavDataSize(wav) == recorded.size());
            client.sender.disconnect();
            pipeline.stop();
            QCOMPARE(pipeline.counters().bytes, quint64(recorded.size()));
            QCOMPARE(wavDataSize(wav), qint64(recorded.size()));
            const WavFile file = readWav(wav);
            QCOMPARE(file.rate, 44100);
            QCOMPARE(file.channels, 2);
            QVERIFY2(file.bytes() == recorded, qPrintable(QStringLiteral("after stop %1").arg(play + 1)));
        }
        QVERIFY(!QFile::exists(m_dir.filePath("afternoon-2.wav")));
    }

    void oneSenderAtATime()
    {
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        QVERIFY(pipeline.start());
        Smt2Client first(socket()), second(socket());
        QVERIFY(first.connect());
        auto waiting = second.sender.connect();
        // The second sender got into the backlog and waits for the handshake's answer.
        WAIT_VERIFY(second.sender.state() == smt2::Sender::Handshaking);
        QVERIFY(!waiting.isReady());
        QCOMPARE(pipeline.counters().connections, quint64(1));
        first.sender.disconnect();
        WAIT_VERIFY(waiting.isReady());
        QVERIFY(waiting.get() == smt2::ErrorID::Success);
        QCOMPARE(pipeline.counters().connections, quint64(2));
        QVERIFY(pipeline.counters().senderConnected);
    }

    // A local program of the same user takes the pipeline first; the sender that connects
    // behind it waits in the backlog and is served once the stranger is dropped: nobody has to
    // connect again.
    void strangersAreDropped_data()
    {
        QTest::addColumn<QByteArray>("sends");
        QTest::addColumn<QString>("reason");
        auto header = [](std::uint32_t size, std::uint16_t type) {
            QByteArray bytes(int(smt2::wire::HeaderSize), 0);
            smt2::wire::writeHeader(reinterpret_cast<std::uint8_t*>(bytes.data()), size, type);
            return bytes;
        };
        QByteArray notSmt2 = header(12, 1);
        notSmt2 += QByteArray("HTTP") + QByteArray(8, 0);
        QTest::newRow("Hello of 16 MiB") << header(16u << 20, 1) << "its Hello announces 16777216 bytes, more than 76";
        QTest::newRow("Hello one byte too long") << header(77, 1) + QByteArray(77, 'a') << "its Hello announces 77 bytes, more than 76";
        QTest::newRow("audio first") << header(100, 4) + QByteArray(100, 'a') << "its first message is of type 4, not a Hello";
        QTest::newRow("silent") << QByteArray() << "no Hello within 2000 ms";
        QTest::newRow("half a Hello") << header(20, 1) + QByteArray(5, 0) << "no Hello within 2000 ms";
        QTest::newRow("not smt2") << notSmt2 << "not an smt2 sender";
    }

    void strangersAreDropped()
    {
        QFETCH(QByteArray, sends);
        QFETCH(QString, reason);
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        QVERIFY(pipeline.start());
        const sockaddr_un address = unixAddress(socket());
        const int stranger = ::socket(AF_UNIX, SOCK_STREAM, 0);
        QCOMPARE(::connect(stranger, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        QVERIFY(resetPeakMemory());
        const long peakBefore = peakMemoryKiB();
        QCOMPARE(::send(stranger, sends.constData(), size_t(sends.size()), MSG_NOSIGNAL), ssize_t(sends.size()));
        Smt2Client sender(socket());
        auto connected = sender.sender.connect();
        WAIT_VERIFY(connected.isReady());
        QVERIFY(connected.get() == smt2::ErrorID::Success);
        // The stranger was hung up on, and nothing it announced was set aside for it.
        char byte;
        const ssize_t got = ::recv(stranger, &byte, 1, MSG_DONTWAIT);
        QVERIFY2(got == 0 || (got < 0 && errno == ECONNRESET), std::strerror(errno)); // closed, or reset over unread bytes
        ::close(stranger);
        QVERIFY2(peakMemoryKiB() - peakBefore < 8 * 1024, qPrintable(QString::number(peakMemoryKiB() - peakBefore)));
        QCOMPARE(pipeline.counters().droppedStrangers, quint64(1));
        QCOMPARE(pipeline.counters().connections, quint64(1));
        const QString line = "Dropped a client of " + QString::fromStdString(socket()) + " before its handshake: " + reason
                             + "; waiting for the next sender";
        QVERIFY2(m_log.contains(log4cplus::WARN_LOG_LEVEL, line), qPrintable(m_log.dump()));
        sender.format(8000, 1);
        QVERIFY(sender.sendAndWait(QByteArray(1600, 'x')));
        WAIT_VERIFY(pipeline.counters().bytes == 1600);
    }

    // The pipeline's answer to a Hello, byte by byte as docs/smt2.md lays it out.
    void helloReplyOnTheWire_data()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<bool>("refuseVersion1");
        QTest::addColumn<QByteArray>("reply"); // the payload after the 8-byte header
        const QByteArray accepted = QByteArray::fromHex("01000100" "00000000" "00000000");
        auto refused = [](const QByteArray& reason) {
            QByteArray length(4, 0);
            length[0] = char(reason.size());
            return QByteArray::fromHex("00000100" "04000000") + length + reason;
        };
        QTest::newRow("version 1") << 1 << false << accepted;
        QTest::newRow("version 2") << 2 << false << refused("protocol version 2 not supported");
        QTest::newRow("version 1, refused") << 1 << true << refused("protocol version 1 not supported");
    }

    void helloReplyOnTheWire()
    {
        QFETCH(int, version);
        QFETCH(bool, refuseVersion1);
        QFETCH(QByteArray, reply);
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        if (refuseVersion1)
            pipeline.refuseProtocolVersion(1);
        QVERIFY(pipeline.start());
        const sockaddr_un address = unixAddress(socket());
        const int client = ::socket(AF_UNIX, SOCK_STREAM, 0);
        QCOMPARE(::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        // Header (16 bytes of payload, type 1, no flags), "SMT2", the version, reserved, "audio".
        const QByteArray hello = QByteArray::fromHex("10000000" "0100" "0000") + "SMT2" + char(version) + QByteArray(3, 0)
                                 + QByteArray::fromHex("05000000") + "audio";
        QCOMPARE(::send(client, hello.constData(), size_t(hello.size()), MSG_NOSIGNAL), ssize_t(hello.size()));
        QByteArray expected(4, 0);
        expected[0] = char(reply.size());
        expected += QByteArray::fromHex("0200" "0000") + reply;
        QByteArray got;
        pollfd readable{client, POLLIN, 0};
        while (got.size() < expected.size() && ::poll(&readable, 1, 10000) == 1) {
            char buffer[256];
            const ssize_t length = ::recv(client, buffer, sizeof buffer, 0);
            if (length <= 0)
                break;
            got.append(buffer, int(length));
        }
        ::close(client);
        QCOMPARE(got.toHex(), expected.toHex());
        // The counters change before the reply goes out.
        QCOMPARE(pipeline.counters().connections, quint64(reply.startsWith('\x01') ? 1 : 0));
        QCOMPARE(pipeline.counters().refusedHandshakes, quint64(reply.startsWith('\x01') ? 0 : 1));
    }

    // While the device is paused its sender's audio waits; the Hello of the next sender does not.
    void handshakeWhilePaused()
    {
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        QVERIFY(pipeline.start());
        pipeline.setReadingPaused(true);
        Smt2Client sender(socket());
        QVERIFY(sender.connect());
    }

    void socketModeIgnoresUmask_data()
    {
        QTest::addColumn<int>("umask");
        QTest::newRow("0000") << 0;
        QTest::newRow("0022") << 022;
        QTest::newRow("0077") << 077;
        QTest::newRow("0277 (no owner write)") << 0277;
    }

    void socketModeIgnoresUmask()
    {
        QFETCH(int, umask);
        const mode_t previous = ::umask(mode_t(umask));
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        const bool started = pipeline.start();
        ::umask(previous);
        QVERIFY(started);
        struct stat st;
        QCOMPARE(::lstat(socket().c_str(), &st), 0);
        QVERIFY(S_ISSOCK(st.st_mode));
        QCOMPARE(int(st.st_mode & 07777), 0600);
        Smt2Client sender(socket());
        QVERIFY(sender.connect());
    }

    // A program of another user: the socket file keeps it out, and where someone widened the
    // file's mode, the pipeline closes its connection and serves its own user's sender.
    void otherUsersAreRefused()
    {
        if (::geteuid() != 0)
            QSKIP("needs root to run a client as uid 65534");
        // The directory lets anyone reach the socket file; only the file's mode decides.
        QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                                        | QFileDevice::ExeGroup | QFileDevice::ExeOther));
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        QVERIFY(pipeline.start());
        QCOMPARE(connectAsNobody(socket()), 0);
        QCOMPARE(pipeline.counters().refusedPeers, quint64(0));

        QCOMPARE(::chmod(socket().c_str(), 0666), 0);
        QCOMPARE(connectAsNobody(socket()), 1);
        WAIT_VERIFY(pipeline.counters().refusedPeers == 1);
        const QStringList refused = m_log.messages(log4cplus::WARN_LOG_LEVEL).filter(QStringLiteral("Refusing a connection of uid 65534 (pid "));
        QCOMPARE(refused.size(), 1);
        QVERIFY2(refused.first().endsWith(" on " + QString::fromStdString(socket())
                                          + ": only uid 0 may send audio here; waiting for the next sender"),
                 qPrintable(refused.first()));
        Smt2Client sender(socket());
        QVERIFY(sender.connect());
        QCOMPARE(pipeline.counters().connections, quint64(1));
    }

    void socketPath_data()
    {
        QTest::addColumn<QString>("existing");
        QTest::addColumn<bool>("starts");
        QTest::newRow("nothing there") << QString() << true;
        QTest::newRow("stale socket") << "socket" << true;
        QTest::newRow("regular file") << "file" << false;
    }

    void socketPath()
    {
        QFETCH(QString, existing);
        QFETCH(bool, starts);
        const std::string path = m_dir.filePath("sub/dir/pipe.sock").toStdString();
        if (existing == "socket") {
            // What a crashed pipeline leaves behind: a socket file nobody listens on.
            QVERIFY(QDir().mkpath(m_dir.filePath("sub/dir")));
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
            QCOMPARE(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
            ::close(fd);
        } else if (existing == "file") {
            QVERIFY(QDir().mkpath(m_dir.filePath("sub/dir")));
            QFile f(QString::fromStdString(path));
            QVERIFY(f.open(QIODevice::WriteOnly));
        }
        vrax::AudioPipeline pipeline(path, nullptr);
        std::string error;
        QCOMPARE(pipeline.start(&error), starts);
        QCOMPARE(QString::fromStdString(error), starts ? QString() : QString::fromStdString(path + " exists and is not a socket"));
        if (starts) {
            Smt2Client client(path);
            QVERIFY(client.connect());
        }
    }

    void underrunsInRealtime()
    {
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink(), vrax::AudioPace::Realtime);
        QVERIFY(pipeline.start());
        Smt2Client client(socket());
        QVERIFY(client.connect());
        client.format(8000, 1);
        const QByteArray tenthSecond(1600, 'x');
        // One message, so no scheduling hiccup between two can look like a gap in the audio.
        QVERIFY(client.sendAndWait(tenthSecond + tenthSecond));
        WAIT_VERIFY(pipeline.counters().bytes == 3200);
        QCOMPARE(pipeline.counters().underruns, quint64(0));
        // The time that passes is what is tested here: 200 ms of audio, then nothing for longer.
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        QVERIFY(client.sendAndWait(tenthSecond));
        WAIT_VERIFY(pipeline.counters().bytes == 4800);
        QCOMPARE(pipeline.counters().underruns, quint64(1));
        // A flush starts the clock again: the pause after it is no underrun.
        client.sender.sendFlush();
        WAIT_VERIFY(pipeline.counters().flushes == 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        QVERIFY(client.sendAndWait(tenthSecond));
        WAIT_VERIFY(pipeline.counters().bytes == 6400);
        QCOMPARE(pipeline.counters().underruns, quint64(1));
        // Nor is a pause: the read already under way completes, then reading stops until resumed.
        pipeline.setReadingPaused(true);
        QVERIFY(client.sendAndWait(tenthSecond));
        WAIT_VERIFY(pipeline.counters().bytes == 8000);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        pipeline.setReadingPaused(false);
        QVERIFY(client.sendAndWait(tenthSecond));
        WAIT_VERIFY(pipeline.counters().bytes == 9600);
        QCOMPARE(pipeline.counters().underruns, quint64(1));
    }

    // The benchmarks read this file: events in order, byte totals, and at fast pace the time
    // audio will have been played is its arrival.
    void traceFile()
    {
        const std::string trace = m_dir.filePath("trace.txt").toStdString();
        vrax::AudioPipeline pipeline(socket(), vrax::makeNullSink());
        pipeline.setTraceFile(trace);
        QVERIFY(pipeline.start());
        {
            Smt2Client client(socket());
            QVERIFY(client.connect());
            client.format(44100, 2);
            QVERIFY(client.sendAndWait(QByteArray(4000, 'a')));
            QVERIFY(client.sendAndWait(QByteArray(1000, 'b')));
            client.sender.endCurrentAudioSequence();
        }
        WAIT_VERIFY(!pipeline.counters().senderConnected);
        pipeline.stop();
        QFile file(QString::fromStdString(trace));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QStringList events;
        qint64 last = 0;
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.isEmpty())
                continue;
            const QList<QByteArray> fields = line.split(' ');
            QVERIFY(fields.first().toLongLong() >= last);
            last = fields.first().toLongLong();
            if (fields.at(1) == "audio")
                QCOMPARE(fields.at(4), fields.first());
            events << QString::fromLatin1(line.mid(line.indexOf(' ') + 1)).section(' ', 0, fields.at(1) == "audio" ? 2 : -1);
        }
        QCOMPARE(events, QStringList({"connected", "sequence 44100 2", "audio 4000 4000", "audio 1000 5000", "end",
                                      "disconnected"}));

        vrax::AudioPipeline unwritable(socket(), vrax::makeNullSink());
        unwritable.setTraceFile(m_dir.filePath("missing/trace.txt").toStdString());
        std::string error;
        QVERIFY(!unwritable.start(&error));
        QVERIFY(QString::fromStdString(error).startsWith("Can not open the trace file"));
    }

    void sinkOutputs_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("error");
        QTest::newRow("null") << "null" << QString();
        QTest::newRow("wav") << "wav:/x.wav" << QString();
        QTest::newRow("wav without file") << "wav:" << "unknown audio output \"wav:\" (wav:FILE, null or alsa[:DEVICE])";
        QTest::newRow("unknown") << "pulse" << "unknown audio output \"pulse\" (wav:FILE, null or alsa[:DEVICE])";
    }

    void sinkOutputs()
    {
        QFETCH(QString, output);
        QFETCH(QString, error);
        std::string reason;
        const auto sink = vrax::makeAudioSink(output.toStdString(), &reason);
        QCOMPARE(bool(sink), error.isEmpty());
        QCOMPARE(QString::fromStdString(reason), error);
    }

private:
    std::string socket() const { return m_dir.filePath("pipe.sock").toStdString(); }

    // The size the header of a canonical WAV file gives its data, when the RIFF size matches the
    // file and the data chunk runs to its end; -1 otherwise.
    static qint64 wavDataSize(const QString& path)
    {
        const QByteArray bytes = fileBytes(path);
        auto u32 = [&](int at) { return qint64(qFromLittleEndian<quint32>(bytes.constData() + at)); };
        if (bytes.size() < 12 || !bytes.startsWith("RIFF") || bytes.mid(8, 4) != "WAVE" || u32(4) != bytes.size() - 8)
            return -1;
        for (int at = 12; at + 8 <= bytes.size(); at += 8 + int(u32(at + 4))) {
            if (bytes.mid(at, 4) == "data")
                return u32(at + 4) == bytes.size() - at - 8 ? u32(at + 4) : -1;
        }
        return -1;
    }
    LogCapture m_log;
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestAudioPipeline)
#include "tst_audiopipeline.moc"
