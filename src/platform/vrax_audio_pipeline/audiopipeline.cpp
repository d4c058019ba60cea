#include "audiopipeline.h"

#include "ioeventloop_p.h"
#include "smt2/sender.h"
#include "smt2wire.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/read.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>

namespace vrax {

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("AudioPipeline");

using Clock = std::chrono::steady_clock;
using Socket = asio::local::stream_protocol::socket;
// How far ahead of the playing position a realtime pipeline reads (a sound card's buffer).
constexpr auto kRealtimeLead = std::chrono::milliseconds(100);
// Audio that arrives later than this after the buffer ran dry counts as an underrun.
constexpr auto kUnderrunSlack = std::chrono::milliseconds(20);

struct Session
{
    explicit Session(Socket s) : socket(std::move(s)), timer(socket.get_executor()), handshakeTimer(socket.get_executor()) {}
    Socket socket;
    asio::steady_timer timer;
    asio::steady_timer handshakeTimer; // drops a client that has not completed its Hello in time
    std::uint8_t header[smt2::wire::HeaderSize] = {};
    std::vector<std::uint8_t> payload;
    std::vector<std::uint8_t> reply;
    bool handshakeDone = false;
    bool refused = false; // nothing more is read; the connection ends once the reply is out
    bool sequenceOpen = false;
    bool waitingForResume = false;
    std::optional<Clock::time_point> clockStart;
    std::uint64_t framesSinceStart = 0;
};
} // namespace

struct AudioPipeline::Private : std::enable_shared_from_this<Private>
{
    std::string path;
    std::unique_ptr<AudioSink> sink;
    AudioPace pace = AudioPace::Fast;
    AudioPipelineHooks hooks;
    std::set<std::uint16_t> refusedVersions;
    std::string tracePath;
    int traceFd = -1;

    std::unique_ptr<miscUtils::IOEventLoopThread> loopThread;
    std::atomic<bool> paused{false};

    mutable std::mutex countersMutex;
    AudioPipelineCounters counters;

    // Loop thread only.
    std::unique_ptr<asio::local::stream_protocol::acceptor> acceptor;
    std::shared_ptr<Session> session;
    audioUtils::PcmAudioInfo format;

    // One write() per line on an O_APPEND descriptor, so other writers of the file never split it.
    [[gnu::format(printf, 3, 4)]] void trace(Clock::time_point at, const char* format, ...)
    {
        if (traceFd < 0)
            return;
        char line[160];
        int n = std::snprintf(line, sizeof line, "%lld ", nanoseconds(at));
        va_list args;
        va_start(args, format);
        n += std::vsnprintf(line + n, sizeof line - std::size_t(n), format, args);
        va_end(args);
        if (n >= int(sizeof line) - 1)
            n = int(sizeof line) - 2;
        line[n++] = '\n';
        if (::write(traceFd, line, std::size_t(n)) != n)
            LOG4CPLUS_WARN(logger, "Trace line not written to " << tracePath);
    }

    static long long nanoseconds(Clock::time_point at)
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
    }

    template <typename F>
    void count(F&& change)
    {
        std::lock_guard<std::mutex> lock(countersMutex);
        change(counters);
    }

    void accept()
    {
        if (!acceptor || session)
            return;
        acceptor->async_accept([w = weak_from_this()](const std::error_code& ec, Socket socket) {
            auto self = w.lock();
            if (!self || !self->acceptor || ec == asio::error::operation_aborted)
                return;
            if (ec) {
                LOG4CPLUS_WARN(logger, "Accept failed: " << ec.message());
                self->accept();
                return;
            }
            if (!self->ownUser(socket)) {
                std::error_code ignored;
                socket.close(ignored);
                self->accept();
                return;
            }
            auto s = std::make_shared<Session>(std::move(socket));
            self->session = s;
            LOG4CPLUS_DEBUG(logger, "Sender accepted on " << self->path);
            s->handshakeTimer.expires_after(AudioPipeline::kHandshakeTimeout);
            s->handshakeTimer.async_wait([self, w = std::weak_ptr<Session>(s)](const std::error_code& ec) {
                auto s = w.lock();
                if (!ec && s && s == self->session && !s->handshakeDone)
                    self->drop("no Hello within " + std::to_string(AudioPipeline::kHandshakeTimeout.count()) + " ms", true);
            });
            self->readHeader(s);
        });
    }

    // The socket file keeps other users out; this also holds where its mode was widened.
    bool ownUser(Socket& socket)
    {
        ucred peer{};
        socklen_t length = sizeof peer;
        if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.uid == ::geteuid())
            return true;
        count([](AudioPipelineCounters& c) { ++c.refusedPeers; });
        LOG4CPLUS_WARN(logger, "Refusing a connection of uid " << peer.uid << " (pid " << peer.pid << ") on " << path
                                   << ": only uid " << ::geteuid() << " may send audio here; waiting for the next sender");
        return false;
    }

    void readHeader(const std::shared_ptr<Session>& s)
    {
        // A pause holds back audio, not the handshake of the next sender.
        if (paused.load() && s->handshakeDone) {
            s->waitingForResume = true;
            return;
        }
        asio::async_read(s->socket, asio::buffer(s->header),
                         [self = shared_from_this(), w = std::weak_ptr<Session>(s)](const std::error_code& ec, std::size_t) {
                             auto s = w.lock();
                             if (!s || s != self->session)
                                 return;
                             if (ec) {
                                 self->drop(ec == asio::error::eof ? "sender closed the connection" : ec.message());
                                 return;
                             }
                             const smt2::wire::Header h = smt2::wire::readHeader(s->header);
                             // Nothing of a client is buffered before it has said Hello.
                             if (!s->handshakeDone && h.type != smt2::wire::Hello) {
                                 self->drop("its first message is of type " + std::to_string(h.type) + ", not a Hello", true);
                                 return;
                             }
                             if (!s->handshakeDone && h.payloadSize > smt2::wire::MaxHelloPayload) {
                                 self->drop("its Hello announces " + std::to_string(h.payloadSize) + " bytes, more than "
                                                + std::to_string(smt2::wire::MaxHelloPayload),
                                            true);
                                 return;
                             }
                             if (h.payloadSize > smt2::wire::MaxPayload) {
                                 self->drop("message of " + std::to_string(h.payloadSize) + " bytes");
                                 return;
                             }
                             s->payload.resize(h.payloadSize);
                             self->readPayload(s, h.type);
                         });
    }

    void readPayload(const std::shared_ptr<Session>& s, std::uint16_t type)
    {
        asio::async_read(s->socket, asio::buffer(s->payload),
                         [self = shared_from_this(), w = std::weak_ptr<Session>(s), type](const std::error_code& ec, std::size_t) {
                             auto s = w.lock();
                             if (!s || s != self->session)
                                 return;
                             if (ec) {
                                 self->drop(ec.message());
                                 return;
                             }
                             std::optional<Clock::time_point> due;
                             std::string error;
                             const bool wasConnected = s->handshakeDone;
                             if (!self->handle(*s, type, Clock::now(), &due, &error)) {
                                 self->drop(error, !wasConnected);
                                 return;
                             }
                             if (s != self->session || !s->socket.is_open() || s->refused)
                                 return;
                             if (due && *due > Clock::now()) {
                                 s->timer.expires_at(*due);
                                 s->timer.async_wait([self, w](const std::error_code& ec) {
                                     auto s = w.lock();
                                     if (!ec && s && s == self->session)
                                         self->readHeader(s);
                                 });
                                 return;
                             }
                             self->readHeader(s);
                         });
    }

    // One message; false with a reason when the sender must be dropped.
    bool handle(Session& s, std::uint16_t type, Clock::time_point arrived, std::optional<Clock::time_point>* due,
                std::string* error)
    {
        if (!s.handshakeDone) {
            const bool ok = handshake(s, error);
            if (s.handshakeDone)
                trace(arrived, "connected");
            return ok;
        }
        smt2::wire::Reader r(s.payload.data(), s.payload.size());
        switch (type) {
        case smt2::wire::SequenceInfo: {
            const std::string audioType = r.string();
            const miscUtils::VariantHash info = r.hash();
            const audioUtils::PcmAudioInfo pcm = audioUtils::PcmAudioInfo::fromHash(info);
            if (!r.ok() || audioType != audioUtils::pcmAudioType() || !pcm.isValid()) {
                *error = "unusable sequence info (type \"" + audioType + "\")";
                return false;
            }
            if (s.sequenceOpen)
                endSequence(s);
            if (!sink->startSequence(pcm, error))
                return false;
            s.sequenceOpen = true;
            s.clockStart.reset();
            format = pcm;
            count([&](AudioPipelineCounters& c) {
                ++c.sequences;
                c.format = pcm;
            });
            trace(arrived, "sequence %d %d", pcm.sampleRate(), pcm.channels());
            LOG4CPLUS_DEBUG(logger, "Sequence: " << pcm.sampleRate() << " Hz, " << pcm.channels() << " channels, "
                                                 << audioUtils::toString(pcm.format()));
            if (hooks.sequenceStarted)
                hooks.sequenceStarted(pcm);
            return true;
        }
        case smt2::wire::AudioData: {
            if (!s.sequenceOpen) {
                *error = "audio outside a sequence";
                return false;
            }
            if (s.payload.size() < smt2::wire::AudioDataHeadSize) {
                *error = "short audio message";
                return false;
            }
            const std::uint8_t* data = s.payload.data() + smt2::wire::AudioDataHeadSize;
            const std::size_t size = s.payload.size() - smt2::wire::AudioDataHeadSize;
            if (!sink->write(data, size, error))
                return false;
            const bool underrun = pace == AudioPace::Realtime && !sink->pacesItself() && pacing(s, size, due);
            std::uint64_t total = 0;
            count([&](AudioPipelineCounters& c) {
                c.bytes += size;
                if (underrun)
                    ++c.underruns;
                total = c.bytes;
            });
            trace(arrived, "audio %zu %llu %lld", size, static_cast<unsigned long long>(total),
                  nanoseconds(*due ? **due + kRealtimeLead : arrived));
            if (hooks.audioArrived)
                hooks.audioArrived(data, size);
            return true;
        }
        case smt2::wire::Flush:
            trace(arrived, "flush");
            sink->flush();
            s.clockStart.reset();
            count([](AudioPipelineCounters& c) { ++c.flushes; });
            if (hooks.flushed)
                hooks.flushed();
            return true;
        case smt2::wire::EndOfSequence:
            trace(arrived, "end");
            if (s.sequenceOpen)
                endSequence(s);
            return true;
        default:
            LOG4CPLUS_DEBUG(logger, "Ignoring message of type " << type);
            return true;
        }
    }

    // Advances the playing clock by size bytes; true when the player had run dry before.
    bool pacing(Session& s, std::size_t size, std::optional<Clock::time_point>* due)
    {
        const Clock::time_point now = Clock::now();
        const int rate = format.sampleRate();
        auto playedUntil = [&] {
            return *s.clockStart + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(double(s.framesSinceStart) / rate));
        };
        bool underrun = false;
        if (!s.clockStart) {
            s.clockStart = now;
            s.framesSinceStart = 0;
        } else if (now > playedUntil() + kUnderrunSlack) {
            underrun = true;
            s.clockStart = now;
            s.framesSinceStart = 0;
        }
        s.framesSinceStart += size / std::size_t(format.bytesPerFrame());
        *due = playedUntil() - kRealtimeLead;
        return underrun;
    }

    void endSequence(Session& s)
    {
        s.sequenceOpen = false;
        s.clockStart.reset();
        sink->endSequence();
        if (hooks.sequenceEnded)
            hooks.sequenceEnded();
    }

    bool handshake(Session& s, std::string* error)
    {
        std::uint16_t version = 0;
        if (!smt2::wire::readHelloVersion(s.payload.data(), s.payload.size(), &version)) {
            *error = "not an smt2 sender";
            return false;
        }
        const bool accepted = version == smt2::ProtocolVersion && !refusedVersions.count(version);
        const std::string reason = accepted ? std::string() : "protocol version " + std::to_string(version) + " not supported";
        s.reply = smt2::wire::helloReplyFrame(
            {accepted, smt2::ProtocolVersion,
             std::int32_t(accepted ? smt2::ErrorID::Success : smt2::ErrorID::HandshakeFailed), reason});
        // The counters change before the reply goes out, so a sender that has its answer sees them.
        if (accepted) {
            s.handshakeDone = true;
            s.handshakeTimer.cancel();
            count([](AudioPipelineCounters& c) {
                ++c.connections;
                c.senderConnected = true;
            });
            LOG4CPLUS_INFO(logger, "Sender connected on " << path);
        } else {
            LOG4CPLUS_INFO(logger, "Refusing sender: " << reason);
            count([](AudioPipelineCounters& c) { ++c.refusedHandshakes; });
            s.refused = true;
        }
        auto sp = session;
        asio::async_write(s.socket, asio::buffer(s.reply),
                          [self = shared_from_this(), w = std::weak_ptr<Session>(sp), accepted, reason](const std::error_code& ec, std::size_t) {
                              auto s = w.lock();
                              if (!s || s != self->session)
                                  return;
                              if (!accepted)
                                  self->drop("handshake refused: " + reason);
                              else if (ec)
                                  self->drop(ec.message());
                          });
        if (accepted && hooks.senderConnected)
            hooks.senderConnected();
        return true;
    }

    // stranger: a client that broke the rules before its handshake (said at WARN).
    void drop(const std::string& reason, bool stranger = false)
    {
        auto s = std::move(session);
        session.reset();
        if (!s)
            return;
        std::error_code ignored;
        s->timer.cancel();
        s->handshakeTimer.cancel();
        s->socket.close(ignored);
        if (s->sequenceOpen)
            endSequence(*s);
        if (s->handshakeDone) {
            trace(Clock::now(), "disconnected");
            LOG4CPLUS_INFO(logger, "Sender disconnected: " << reason);
            count([](AudioPipelineCounters& c) { c.senderConnected = false; });
            if (hooks.senderDisconnected)
                hooks.senderDisconnected();
        } else if (stranger) {
            count([](AudioPipelineCounters& c) { ++c.droppedStrangers; });
            LOG4CPLUS_WARN(logger, "Dropped a client of " << path << " before its handshake: " << reason
                                                           << "; waiting for the next sender");
        } else {
            LOG4CPLUS_DEBUG(logger, "Connection ended before the handshake: " << reason);
        }
        accept();
    }
};

AudioPipeline::AudioPipeline(std::string socketPath, std::unique_ptr<AudioSink> sink, AudioPace pace)
    : d(std::make_shared<Private>())
{
    d->path = std::move(socketPath);
    d->sink = sink ? std::move(sink) : makeNullSink();
    d->pace = pace;
}

AudioPipeline::~AudioPipeline()
{
    stop();
}

void AudioPipeline::setHooks(AudioPipelineHooks hooks)
{
    d->hooks = std::move(hooks);
}

void AudioPipeline::refuseProtocolVersion(std::uint16_t version)
{
    d->refusedVersions.insert(version);
}

void AudioPipeline::setTraceFile(std::string path)
{
    d->tracePath = std::move(path);
}

bool AudioPipeline::start(std::string* error)
{
    std::string ignoredError;
    std::string& err = error ? *error : ignoredError;
    if (d->loopThread)
        return true;
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path path(d->path);
    if (path.has_parent_path())
        fs::create_directories(path.parent_path(), ec);
    struct stat st;
    if (::lstat(d->path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            err = d->path + " exists and is not a socket";
            return false;
        }
        ::unlink(d->path.c_str());
    }
    if (!d->tracePath.empty()) {
        d->traceFd = ::open(d->tracePath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (d->traceFd < 0) {
            err = "Can not open the trace file " + d->tracePath + ": " + std::strerror(errno);
            return false;
        }
    }
    d->loopThread = std::make_unique<miscUtils::IOEventLoopThread>(1000, "audioPipeline");
    bool ok = false;
    d->loopThread->ioEventLoop().runSync([&] {
        auto acceptor = std::make_unique<asio::local::stream_protocol::acceptor>(
            miscUtils::asioContext(d->loopThread->ioEventLoop()));
        std::error_code ec;
        acceptor->open(asio::local::stream_protocol(), ec);
        // The file bind() creates takes the socket's mode less the umask: never wider than 0600.
        if (!ec && ::fchmod(acceptor->native_handle(), S_IRUSR | S_IWUSR) != 0)
            ec = std::error_code(errno, std::generic_category());
        if (!ec)
            acceptor->bind(asio::local::stream_protocol::endpoint(d->path), ec);
        // A umask that takes the owner's bits would lock the sender out too.
        if (!ec && ::fchmodat(AT_FDCWD, d->path.c_str(), S_IRUSR | S_IWUSR, AT_SYMLINK_NOFOLLOW) != 0)
            ec = std::error_code(errno, std::generic_category());
        if (!ec)
            acceptor->listen(asio::socket_base::max_listen_connections, ec);
        if (ec) {
            err = "Can not listen on " + d->path + ": " + ec.message();
            return;
        }
        d->acceptor = std::move(acceptor);
        d->accept();
        ok = true;
    });
    if (!ok) {
        d->loopThread.reset();
        closeTrace();
        return false;
    }
    LOG4CPLUS_INFO(logger, "Audio pipeline listening on " << d->path << " (" << toString(d->pace) << ")");
    return true;
}

void AudioPipeline::stop()
{
    if (!d->loopThread)
        return;
    d->loopThread->ioEventLoop().runSync([p = d] {
        std::error_code ignored;
        if (p->acceptor)
            p->acceptor->close(ignored);
        p->acceptor.reset(); // before drop(), so no new accept is armed
        p->drop("pipeline stopped");
        p->sink->close();
    });
    d->loopThread.reset();
    ::unlink(d->path.c_str());
    closeTrace();
}

void AudioPipeline::closeTrace()
{
    if (d->traceFd >= 0)
        ::close(d->traceFd);
    d->traceFd = -1;
}

bool AudioPipeline::isListening() const
{
    return bool(d->loopThread);
}

void AudioPipeline::setReadingPaused(bool paused)
{
    d->paused = paused;
    if (!paused && d->loopThread) {
        d->loopThread->ioEventLoop().post([w = std::weak_ptr<Private>(d)] {
            auto p = w.lock();
            if (p && p->session && p->session->waitingForResume) {
                p->session->waitingForResume = false;
                // A paused sound card's clock stops too: what follows the pause is no underrun.
                p->session->clockStart.reset();
                p->readHeader(p->session);
            }
        });
    }
}

AudioPipelineCounters AudioPipeline::counters() const
{
    std::lock_guard<std::mutex> lock(d->countersMutex);
    AudioPipelineCounters c = d->counters;
    return c;
}

const std::string& AudioPipeline::socketPath() const
{
    return d->path;
}

const char* AudioPipeline::toString(AudioPace pace)
{
    return pace == AudioPace::Realtime ? "realtime" : "fast";
}

bool AudioPipeline::parsePace(const std::string& text, AudioPace* pace)
{
    if (text == "realtime")
        *pace = AudioPace::Realtime;
    else if (text == "fast")
        *pace = AudioPace::Fast;
    else
        return false;
    return true;
}

} // namespace vrax
