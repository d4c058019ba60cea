#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <vector>

// Whole-file reads and writes for tests; a file that cannot be read is empty.
QByteArray fileBytes(const QString& path);
// Writes bytes to path, its parent directories created; false when any of it failed.
bool writeBytes(const QString& path, const QByteArray& bytes);
// Lowercase hex SHA-256, as the update service writes checksums.
QString sha256Hex(const QByteArray& bytes);

// A 16-bit WAV file as the emulated pipeline writes it; rate 0 when it could not be read.
struct WavFile
{
    int rate = 0;
    int channels = 0;
    std::vector<short> samples; // channels interleaved
    QByteArray bytes() const;
};
WavFile readWav(const QString& path);

// The first index from `from` on where the fake player library's running counter does not go on
// by one (the counter at `from` being `first`), or samples.size() when it always does.
std::size_t counterBreak(const std::vector<short>& samples, std::size_t from = 0, int first = 0);
