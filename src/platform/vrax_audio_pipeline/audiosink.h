#pragma once

#include "audioUtils/pcmaudioinfo.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vrax {

// Where the emulated audio pipeline puts the PCM it receives. Called on the pipeline's thread
// only. A failing call returns false with a reason; the pipeline then drops the sender.
class AudioSink
{
public:
    virtual ~AudioSink() = default;

    // A sequence of this format starts.
    virtual bool startSequence(const audioUtils::PcmAudioInfo& format, std::string* error) = 0;
    virtual bool write(const std::uint8_t* data, std::size_t size, std::string* error) = 0;
    // Drops audio not yet played (a device's buffer); written files keep what they have.
    virtual void flush() {}
    virtual void endSequence() {}
    // Finishes what was output so far (a file's header counts every frame). The sink may be
    // used again afterwards; a WAV file then goes on where it ended.
    virtual void close() {}
    // True when write() blocks at the playing pace itself, like a sound card.
    virtual bool pacesItself() const { return false; }
    // Underruns the sink saw itself (a device that ran dry).
    virtual std::uint64_t underruns() const { return 0; }
};

// Discards everything.
std::unique_ptr<AudioSink> makeNullSink();
// WAV files through libsndfile: every sequence goes into path while the format stays the same,
// across close() and later sequences, so nothing recorded is written over; each change of
// format continues in path-2.wav, path-3.wav, ... (a ".wav" ending of path is replaced). The
// header is brought up to date at the end of each sequence, every second of audio and on
// close(), so a crash loses at most the last second; the file is closed when the format changes
// and when the sink is destroyed. The first sequence starts path afresh.
std::unique_ptr<AudioSink> makeWavSink(const std::string& path);
// Live sound through ALSA ("default" when device is empty); null when built without ALSA.
std::unique_ptr<AudioSink> makeAlsaSink(const std::string& device);
bool alsaAvailable();

// Where a pipeline's audio goes, read from its command-line form: "null", "wav:FILE" or
// "alsa[:DEVICE]".
struct AudioOutput
{
    enum class Kind { Null, Wav, Alsa };
    Kind kind = Kind::Null;
    std::string target; // the WAV file, or the ALSA device (empty: "default")

    // False, leaving output as it was, when text is none of the three forms ("wav:" without a
    // file included).
    static bool parse(const std::string& text, AudioOutput* output);
};

// The sink output names; null with the reason in error when this build cannot make it (ALSA).
std::unique_ptr<AudioSink> makeAudioSink(const AudioOutput& output, std::string* error);
// A sink from its command-line form (AudioOutput::parse). Null with the reason in error when the
// text is not one of the forms or the sink cannot be made.
std::unique_ptr<AudioSink> makeAudioSink(const std::string& output, std::string* error);

} // namespace vrax
