#include "audioUtils/pcmaudioinfo.h"

namespace audioUtils {

namespace {
const char* const kSampleRate = "sampleRate";
const char* const kChannels = "channels";
const char* const kFormat = "format";
} // namespace

int pcmBytesPerSample(PcmFormat format)
{
    switch (format) {
    case PcmFormat::S16LE:
        return 2;
    case PcmFormat::S24LE:
        return 3;
    case PcmFormat::S32LE:
    case PcmFormat::F32LE:
        return 4;
    }
    return 0;
}

const char* toString(PcmFormat format)
{
    switch (format) {
    case PcmFormat::S16LE:
        return "S16LE";
    case PcmFormat::S24LE:
        return "S24LE";
    case PcmFormat::S32LE:
        return "S32LE";
    case PcmFormat::F32LE:
        return "F32LE";
    }
    return "unknown";
}

std::string pcmAudioType()
{
    return "audio/pcm";
}

PcmAudioInfo::PcmAudioInfo(int sampleRate, int channels, PcmFormat format)
    : m_sampleRate(sampleRate), m_channels(channels), m_format(format)
{
}

bool PcmAudioInfo::isValid() const
{
    return m_sampleRate > 0 && m_channels > 0 && pcmBytesPerSample(m_format) > 0;
}

int PcmAudioInfo::bytesPerFrame() const
{
    return isValid() ? m_channels * pcmBytesPerSample(m_format) : 0;
}

miscUtils::Variant PcmAudioInfo::toVariant() const
{
    return miscUtils::VariantHash{{kSampleRate, m_sampleRate}, {kChannels, m_channels}, {kFormat, int(m_format)}};
}

PcmAudioInfo PcmAudioInfo::fromVariant(const miscUtils::Variant& value)
{
    return fromHash(value.asHash());
}

PcmAudioInfo PcmAudioInfo::fromHash(const miscUtils::VariantHash& hash)
{
    const auto rate = hash.find(kSampleRate);
    const auto channels = hash.find(kChannels);
    const auto format = hash.find(kFormat);
    if (rate == hash.end() || channels == hash.end() || format == hash.end()
        || rate->second.type() != miscUtils::Variant::Type::Int
        || channels->second.type() != miscUtils::Variant::Type::Int
        || format->second.type() != miscUtils::Variant::Type::Int)
        return PcmAudioInfo();
    const std::int64_t r = rate->second.asInt();
    const std::int64_t c = channels->second.asInt();
    const std::int64_t f = format->second.asInt();
    if (r <= 0 || r > 1000000 || c <= 0 || c > 64 || f < 0 || f > int(PcmFormat::F32LE))
        return PcmAudioInfo();
    return PcmAudioInfo(int(r), int(c), PcmFormat(f));
}

} // namespace audioUtils
