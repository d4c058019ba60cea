#include "audiosink.h"

#include <sndfile.h>

#ifdef VRAX_HAVE_ALSA
#include <alsa/asoundlib.h>
#endif

#include <cstring>
#include <vector>

namespace vrax {

namespace {

class NullSink : public AudioSink
{
public:
    bool startSequence(const audioUtils::PcmAudioInfo&, std::string*) override { return true; }
    bool write(const std::uint8_t*, std::size_t, std::string*) override { return true; }
};

int sndfileFormat(audioUtils::PcmFormat format)
{
    switch (format) {
    case audioUtils::PcmFormat::S16LE:
        return SF_FORMAT_PCM_16;
    case audioUtils::PcmFormat::S24LE:
        return SF_FORMAT_PCM_24;
    case audioUtils::PcmFormat::S32LE:
        return SF_FORMAT_PCM_32;
    case audioUtils::PcmFormat::F32LE:
        return SF_FORMAT_FLOAT;
    }
    return 0;
}

class WavSink : public AudioSink
{
public:
    explicit WavSink(std::string path) : m_path(std::move(path)) {}
    ~WavSink() override { finishFile(); }

    bool startSequence(const audioUtils::PcmAudioInfo& format, std::string* error) override
    {
        // The file stays open across stops and plays: a play after a stop goes on at its end.
        if (m_file && format == m_format)
            return true;
        finishFile();
        ++m_fileCount;
        const std::string path = fileName(m_fileCount);
        SF_INFO info{};
        info.samplerate = format.sampleRate();
        info.channels = format.channels();
        info.format = SF_FORMAT_WAV | sndfileFormat(format.format()) | SF_ENDIAN_FILE;
        m_file = sf_open(path.c_str(), SFM_WRITE, &info);
        if (!m_file) {
            *error = "Can not write " + path + ": " + sf_strerror(nullptr);
            return false;
        }
        m_format = format;
        m_unheaded = 0;
        return true;
    }

    bool write(const std::uint8_t* data, std::size_t size, std::string* error) override
    {
        if (!m_file) {
            *error = "no open file";
            return false;
        }
        // libsndfile takes whole frames; a frame split across messages waits for its end.
        const std::size_t frame = std::size_t(m_format.bytesPerFrame());
        m_carry.insert(m_carry.end(), data, data + size);
        const std::size_t whole = m_carry.size() - m_carry.size() % frame;
        if (whole == 0)
            return true;
        if (sf_write_raw(m_file, m_carry.data(), sf_count_t(whole)) != sf_count_t(whole)) {
            *error = std::string("WAV write failed: ") + sf_strerror(m_file);
            return false;
        }
        m_carry.erase(m_carry.begin(), m_carry.begin() + std::ptrdiff_t(whole));
        // A crash loses at most the last second: the header counts the rest.
        m_unheaded += whole;
        if (m_unheaded >= std::size_t(m_format.sampleRate()) * frame)
            updateHeader();
        return true;
    }

    // A piece of a frame left at the end belongs to no frame of what follows.
    void endSequence() override
    {
        updateHeader();
        m_carry.clear();
    }

    void close() override
    {
        updateHeader();
        m_carry.clear();
    }

private:
    std::string fileName(int count) const
    {
        if (count == 1)
            return m_path;
        std::string base = m_path;
        if (base.size() > 4 && base.compare(base.size() - 4, 4, ".wav") == 0)
            base.resize(base.size() - 4);
        return base + "-" + std::to_string(count) + ".wav";
    }

    void updateHeader()
    {
        if (m_file && m_unheaded > 0)
            sf_command(m_file, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        m_unheaded = 0;
    }

    void finishFile()
    {
        if (m_file)
            sf_close(m_file);
        m_file = nullptr;
        m_carry.clear();
    }

    std::string m_path;
    SNDFILE* m_file = nullptr;
    audioUtils::PcmAudioInfo m_format;
    int m_fileCount = 0;
    std::vector<std::uint8_t> m_carry;
    std::size_t m_unheaded = 0; // bytes written since the header was last brought up to date
};

#ifdef VRAX_HAVE_ALSA
class AlsaSink : public AudioSink
{
public:
    explicit AlsaSink(std::string device) : m_device(device.empty() ? "default" : std::move(device)) {}
    ~AlsaSink() override { close(); }

    bool startSequence(const audioUtils::PcmAudioInfo& format, std::string* error) override
    {
        if (m_pcm && format == m_format)
            return true;
        close();
        snd_pcm_format_t alsaFormat = SND_PCM_FORMAT_S16_LE;
        switch (format.format()) {
        case audioUtils::PcmFormat::S16LE:
            alsaFormat = SND_PCM_FORMAT_S16_LE;
            break;
        case audioUtils::PcmFormat::S24LE:
            alsaFormat = SND_PCM_FORMAT_S24_3LE;
            break;
        case audioUtils::PcmFormat::S32LE:
            alsaFormat = SND_PCM_FORMAT_S32_LE;
            break;
        case audioUtils::PcmFormat::F32LE:
            alsaFormat = SND_PCM_FORMAT_FLOAT_LE;
            break;
        }
        int rc = snd_pcm_open(&m_pcm, m_device.c_str(), SND_PCM_STREAM_PLAYBACK, 0);
        if (rc >= 0)
            rc = snd_pcm_set_params(m_pcm, alsaFormat, SND_PCM_ACCESS_RW_INTERLEAVED, unsigned(format.channels()),
                                    unsigned(format.sampleRate()), 1, 200000);
        if (rc < 0) {
            *error = "ALSA " + m_device + ": " + snd_strerror(rc);
            close();
            return false;
        }
        m_format = format;
        return true;
    }

    bool write(const std::uint8_t* data, std::size_t size, std::string* error) override
    {
        const std::size_t frame = std::size_t(m_format.bytesPerFrame());
        m_carry.insert(m_carry.end(), data, data + size);
        std::size_t offset = 0;
        while (m_carry.size() - offset >= frame) {
            const snd_pcm_sframes_t frames = snd_pcm_sframes_t((m_carry.size() - offset) / frame);
            snd_pcm_sframes_t n = snd_pcm_writei(m_pcm, m_carry.data() + offset, snd_pcm_uframes_t(frames));
            if (n == -EPIPE)
                ++m_underruns;
            if (n < 0)
                n = snd_pcm_recover(m_pcm, int(n), 1);
            if (n < 0) {
                *error = std::string("ALSA write: ") + snd_strerror(int(n));
                return false;
            }
            offset += std::size_t(n) * frame;
        }
        m_carry.erase(m_carry.begin(), m_carry.begin() + std::ptrdiff_t(offset));
        return true;
    }

    void flush() override
    {
        if (m_pcm) {
            snd_pcm_drop(m_pcm);
            snd_pcm_prepare(m_pcm);
        }
        m_carry.clear();
    }

    void close() override
    {
        if (m_pcm) {
            snd_pcm_drain(m_pcm);
            snd_pcm_close(m_pcm);
        }
        m_pcm = nullptr;
        m_carry.clear();
    }

    bool pacesItself() const override { return true; }
    std::uint64_t underruns() const override { return m_underruns; }

private:
    std::string m_device;
    snd_pcm_t* m_pcm = nullptr;
    audioUtils::PcmAudioInfo m_format;
    std::vector<std::uint8_t> m_carry;
    std::uint64_t m_underruns = 0;
};
#endif

} // namespace

std::unique_ptr<AudioSink> makeNullSink()
{
    return std::make_unique<NullSink>();
}

std::unique_ptr<AudioSink> makeWavSink(const std::string& path)
{
    return std::make_unique<WavSink>(path);
}

bool alsaAvailable()
{
#ifdef VRAX_HAVE_ALSA
    return true;
#else
    return false;
#endif
}

std::unique_ptr<AudioSink> makeAlsaSink(const std::string& device)
{
#ifdef VRAX_HAVE_ALSA
    return std::make_unique<AlsaSink>(device);
#else
    (void)device;
    return nullptr;
#endif
}

bool AudioOutput::parse(const std::string& text, AudioOutput* output)
{
    if (text == "null")
        *output = {Kind::Null, std::string()};
    else if (text.rfind("wav:", 0) == 0 && text.size() > 4)
        *output = {Kind::Wav, text.substr(4)};
    else if (text == "alsa" || text.rfind("alsa:", 0) == 0)
        *output = {Kind::Alsa, text.size() > 5 ? text.substr(5) : std::string()};
    else
        return false;
    return true;
}

std::unique_ptr<AudioSink> makeAudioSink(const AudioOutput& output, std::string* error)
{
    switch (output.kind) {
    case AudioOutput::Kind::Null:
        return makeNullSink();
    case AudioOutput::Kind::Wav:
        return makeWavSink(output.target);
    case AudioOutput::Kind::Alsa:
        break;
    }
    auto sink = makeAlsaSink(output.target);
    if (!sink && error)
        *error = "this build has no ALSA support";
    return sink;
}

std::unique_ptr<AudioSink> makeAudioSink(const std::string& output, std::string* error)
{
    AudioOutput parsed;
    if (AudioOutput::parse(output, &parsed))
        return makeAudioSink(parsed, error);
    if (error)
        *error = "unknown audio output \"" + output + "\" (wav:FILE, null or alsa[:DEVICE])";
    return nullptr;
}

} // namespace vrax
