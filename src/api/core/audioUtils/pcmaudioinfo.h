#pragma once

#include "miscUtils/variant.h"

#include <string>

namespace audioUtils {

// Sample layouts of interleaved PCM, little-endian.
enum class PcmFormat : int {
    S16LE = 0, // signed 16-bit
    S24LE = 1, // signed 24-bit packed in 3 bytes
    S32LE = 2, // signed 32-bit
    F32LE = 3, // 32-bit float
};

// Bytes per sample of a format; 0 for an unknown value.
int pcmBytesPerSample(PcmFormat format);
const char* toString(PcmFormat format);

// The type string of PCM audio in sequence descriptions.
std::string pcmAudioType();

// A PCM stream description: sample rate in Hz, channel count, sample format.
class PcmAudioInfo
{
public:
    PcmAudioInfo() = default;
    PcmAudioInfo(int sampleRate, int channels, PcmFormat format);

    int sampleRate() const { return m_sampleRate; }
    int channels() const { return m_channels; }
    PcmFormat format() const { return m_format; }
    // Positive rate and channels and a known format.
    bool isValid() const;
    // Bytes of one frame (one sample of every channel); 0 when invalid.
    int bytesPerFrame() const;

    // A hash with "sampleRate", "channels" and "format" (the PcmFormat's integer value).
    miscUtils::Variant toVariant() const;
    // The reverse of toVariant(); an invalid description when a key is missing or wrong.
    static PcmAudioInfo fromVariant(const miscUtils::Variant& value);
    static PcmAudioInfo fromHash(const miscUtils::VariantHash& hash);

    friend bool operator==(const PcmAudioInfo& a, const PcmAudioInfo& b)
    {
        return a.m_sampleRate == b.m_sampleRate && a.m_channels == b.m_channels && a.m_format == b.m_format;
    }
    friend bool operator!=(const PcmAudioInfo& a, const PcmAudioInfo& b) { return !(a == b); }

private:
    int m_sampleRate = 0;
    int m_channels = 0;
    PcmFormat m_format = PcmFormat::S16LE;
};

} // namespace audioUtils
