#pragma once

#include "audiosink.h"

#include "audioUtils/pcmaudioinfo.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vrax {

enum class AudioPace {
    Realtime, // consumes like a sound card: at the sample rate, with a short buffer ahead
    Fast,     // as fast as the sink takes it
};

struct AudioPipelineCounters
{
    std::uint64_t bytes = 0;       // audio bytes received in sequences
    std::uint64_t sequences = 0;   // sequences started
    std::uint64_t flushes = 0;
    std::uint64_t underruns = 0;   // times the player ran dry in the middle of a sequence
    std::uint64_t connections = 0; // senders that completed the handshake
    std::uint64_t refusedHandshakes = 0;
    std::uint64_t refusedPeers = 0;     // connections of another user, closed at once
    std::uint64_t droppedStrangers = 0; // clients dropped before a Hello: too large, not one, or too late
    bool senderConnected = false;
    audioUtils::PcmAudioInfo format; // of the current or last sequence
};

// What a player follows. Every hook runs on the pipeline's thread and must not call stop().
struct AudioPipelineHooks
{
    std::function<void()> senderConnected;
    std::function<void(const audioUtils::PcmAudioInfo&)> sequenceStarted;
    std::function<void(const std::uint8_t* data, std::size_t size)> audioArrived;
    std::function<void()> flushed;
    std::function<void()> sequenceEnded;
    std::function<void()> senderDisconnected;
};

// The receiving end of smt2 (docs/smt2.md): listens on a Unix socket path, serves one sender
// at a time (others wait in the listen backlog), checks the handshake, follows the sequences
// and writes their PCM to a sink at the chosen pace. Runs on a thread of its own.
// start, stop and the destructor belong to one thread; counters() and setReadingPaused()
// may be called from any thread.
//
// Only its own user may send: the socket file is 0600 whatever the umask, and a connection of
// another uid (SO_PEERCRED) is closed at once. A client whose first message is not a Hello of
// at most smt2::wire::MaxHelloPayload bytes, or that has not completed its Hello within
// kHandshakeTimeout, is dropped, and the next sender in the backlog is served.
class AudioPipeline
{
public:
    static constexpr std::chrono::milliseconds kHandshakeTimeout{2000};

    AudioPipeline(std::string socketPath, std::unique_ptr<AudioSink> sink, AudioPace pace = AudioPace::Fast);
    ~AudioPipeline();
    AudioPipeline(const AudioPipeline&) = delete;
    AudioPipeline& operator=(const AudioPipeline&) = delete;

    // Before start(): hooks, and protocol versions to refuse (for tests of refused handshakes).
    void setHooks(AudioPipelineHooks hooks);
    void refuseProtocolVersion(std::uint16_t version);
    // Before start(): appends one line per received message to path, for measurements made
    // outside the process: "<CLOCK_MONOTONIC ns> <event>", the events being
    //   connected | sequence RATE CHANNELS | audio BYTES TOTAL_BYTES PLAYED_UNTIL_NS | flush |
    //   end | disconnected
    // PLAYED_UNTIL_NS is when the audio received so far will have been played: the pacing clock
    // in realtime pace, the arrival time otherwise. start() fails when the file cannot be opened.
    void setTraceFile(std::string path);

    // Listens; returns once a sender can connect. Creates the socket's directory and replaces
    // a stale socket file; anything else at the path is an error. False with the reason in error.
    bool start(std::string* error = nullptr);
    // Drops the sender, stops listening, removes the socket file and finishes the sink.
    // The pipeline can be started again.
    void stop();
    bool isListening() const;

    // While paused nothing more is read from the socket, so the sender is held back.
    void setReadingPaused(bool paused);

    AudioPipelineCounters counters() const;
    const std::string& socketPath() const;

    static const char* toString(AudioPace pace);
    // "realtime" or "fast"; false for anything else.
    static bool parsePace(const std::string& text, AudioPace* pace);

private:
    void closeTrace();

    struct Private;
    std::shared_ptr<Private> d;
};

} // namespace vrax
