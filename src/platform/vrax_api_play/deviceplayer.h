#pragma once

#include "play/playlogic.h"

#include <QPointer>
#include <QTimer>

#include <atomic>
#include <memory>
#include <string>

namespace vrax {

class AudioPipeline;
class AudioSink;
enum class AudioPace;
struct AudioOutput;

// The device's player: plays roles through the play logic named in their metadata, one play
// logic at a time, and feeds the audio pipeline's events (audio, format, play clock) back into
// that play logic's state. Lives on the main thread; the pipeline's events reach it queued.
class DevicePlayer : public PlayLogicInterface
{
    Q_OBJECT
public:
    // output: where the pipeline's audio goes; its sink is made when a stream is opened (so an
    // output this build cannot make fails the play). One player exists at a time.
    DevicePlayer(const AudioOutput& output, AudioPace pace);
    ~DevicePlayer() override;

    static DevicePlayer* instance();

    CMVoidReply play(const VraxRoles& roles, bool startPaused) override;
    CMVoidReply pause() override;
    CMVoidReply stop() override;
    VraxPlayLogicData data() const override;

    // The play logic whose playback is current, or null.
    PlayLogicBase* current() const { return m_current.data(); }
    // The pipeline of the last stream opened, or null.
    AudioPipeline* pipeline() const { return m_pipeline.get(); }
    // The trace file of the pipelines opened from now on (AudioPipeline::setTraceFile).
    void setPipelineTrace(const std::string& path) { m_traceFile = path; }
    // Plays the last roles again, or resumes a paused playback.
    CMVoidReply resume();

    // Used by the play logics: open the roles' resource for logic, close it, pause it.
    CMVoidReply open(PlayLogicBase* logic, const VraxRoles& roles);
    void close(PlayLogicBase* logic);
    void setPaused(PlayLogicBase* logic, bool paused);
    // The play logic is going away: its stream is closed without telling it.
    void forget(PlayLogicBase* logic);

Q_SIGNALS:
    // Emitted on the main thread when the pipeline's sender appears or goes.
    void senderChanged(bool connected);

private:
    bool ensurePipeline(const std::string& socketPath, QString* error);
    void onAudio();
    void onClock();

    std::unique_ptr<AudioOutput> m_output;
    AudioPace m_pace;
    std::string m_traceFile;
    // Made at the first stream, then lent to every pipeline.
    std::shared_ptr<AudioSink> m_sink;
    std::unique_ptr<AudioPipeline> m_pipeline;
    QPointer<PlayLogicBase> m_current;
    VraxRoles m_lastRoles;
    // Bytes the pipeline had received when the current playback began; the play clock counts from there.
    std::uint64_t m_bytesAtOpen = 0;
    // Set by the pipeline's thread on audio, cleared when the main thread has seen it.
    std::atomic<bool> m_audioPosted{false};
    QTimer m_clock;
};

} // namespace vrax
