#include "TestFiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sndfile.h>

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QString sha256Hex(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QByteArray WavFile::bytes() const
{
    return QByteArray(reinterpret_cast<const char*>(samples.data()), int(samples.size() * sizeof(short)));
}

WavFile readWav(const QString& path)
{
    WavFile wav;
    SF_INFO info = {};
    SNDFILE* file = sf_open(path.toLocal8Bit().constData(), SFM_READ, &info);
    if (!file)
        return wav;
    wav.rate = info.samplerate;
    wav.channels = info.channels;
    wav.samples.resize(std::size_t(info.frames) * std::size_t(info.channels));
    wav.samples.resize(std::size_t(sf_readf_short(file, wav.samples.data(), info.frames)) * std::size_t(info.channels));
    sf_close(file);
    return wav;
}

std::size_t counterBreak(const std::vector<short>& samples, std::size_t from, int first)
{
    for (std::size_t i = from; i < samples.size(); ++i)
        if (samples[i] != short(quint16(first + int(i - from))))
            return i;
    return samples.size();
}
