// Frames from a hostile sender: the fuzzer's bytes are what a sender writes to the audio
// pipeline's socket. Each input gets a fresh pipeline (WAV sink, fast pace) and a connection
// that sends the bytes, closes its writing side and waits for the pipeline to hang up; the
// pipeline must never crash, never hang on to a sender that has finished, and tell its player
// a consistent story (connected first, audio only inside a sequence, every sequence ended).
#include "audiopipeline.h"

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <QDir>
#include <QTemporaryDir>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

std::unique_ptr<QTemporaryDir> s_dir;

[[noreturn]] void fault(const char* what)
{
    std::fprintf(stderr, "fuzz_smt2receiver: %s\n", what);
    std::abort();
}

// What the pipeline told its player; written on the pipeline's thread, read after stop().
struct Story
{
    bool connected = false;
    bool disconnected = false;
    bool inSequence = false;
    std::uint64_t sequences = 0;
    std::uint64_t bytes = 0;
    const char* wrong = nullptr;
};

vrax::AudioPipelineHooks hooksFor(Story& story)
{
    vrax::AudioPipelineHooks hooks;
    hooks.senderConnected = [&story] {
        if (story.connected)
            story.wrong = "a second sender connected";
        story.connected = true;
    };
    hooks.sequenceStarted = [&story](const audioUtils::PcmAudioInfo& format) {
        if (!story.connected || story.disconnected || story.inSequence || !format.isValid())
            story.wrong = "a sequence started out of place or with an unusable format";
        story.inSequence = true;
        ++story.sequences;
    };
    hooks.audioArrived = [&story](const std::uint8_t*, std::size_t size) {
        if (!story.inSequence)
            story.wrong = "audio arrived outside a sequence";
        story.bytes += size;
    };
    hooks.flushed = [&story] {
        if (!story.connected || story.disconnected)
            story.wrong = "a flush without a sender";
    };
    hooks.sequenceEnded = [&story] {
        if (!story.inSequence)
            story.wrong = "a sequence ended that had not started";
        story.inSequence = false;
    };
    hooks.senderDisconnected = [&story] {
        if (!story.connected || story.inSequence)
            story.wrong = "the sender went away before its sequence ended";
        story.disconnected = true;
    };
    return hooks;
}

void send(int fd, const uint8_t* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // the pipeline hung up: it refused what it got so far
        data += n;
        size -= size_t(n);
    }
}

// Reads (the handshake reply, if any) until the pipeline closes the connection.
bool waitForHangUp(int fd)
{
    char buffer[4096];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, 10000);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return true;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    s_dir = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/fuzz-smt2-XXXXXX"));
    if (!s_dir->isValid())
        fault("cannot create a temporary directory");
    std::atexit([] { s_dir.reset(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string socketPath = s_dir->filePath(QStringLiteral("smt2")).toStdString();
    Story story;
    vrax::AudioPipeline pipeline(socketPath, vrax::makeWavSink(s_dir->filePath(QStringLiteral("out.wav")).toStdString()),
                                 vrax::AudioPace::Fast);
    pipeline.setHooks(hooksFor(story));
    std::string error;
    if (!pipeline.start(&error))
        fault(error.c_str());

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fault("cannot connect to the pipeline");
    send(fd, data, size);
    ::shutdown(fd, SHUT_WR);
    if (!waitForHangUp(fd))
        fault("the pipeline kept the connection of a sender that had finished");
    ::close(fd);
    pipeline.stop();

    if (story.wrong)
        fault(story.wrong);
    const vrax::AudioPipelineCounters counters = pipeline.counters();
    if (counters.senderConnected || story.inSequence || story.connected != story.disconnected)
        fault("the pipeline still counts a sender or a sequence after it stopped");
    if (counters.bytes != story.bytes || counters.sequences != story.sequences
        || counters.connections != (story.connected ? 1u : 0u))
        fault("the counters disagree with what the player was told");
    if (story.bytes > size)
        fault("more audio came out than was sent");
    return 0;
}
