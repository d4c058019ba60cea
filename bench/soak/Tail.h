#pragma once

// Files another process appends to, read as they grow.
#include <QByteArray>
#include <QFile>
#include <QString>

#include <fcntl.h>
#include <linux/falloc.h>

#include <cerrno>
#include <cstring>

namespace bench {

// Reads what a process appends to a file, a complete line at a time, from where the last read
// stopped.
class Tail
{
public:
    explicit Tail(const QString& path) : m_file(path) {}

    // Calls line(begin, end) for each complete line (without its newline) appended since the
    // last call, reading at most maxBytes.
    template <typename F>
    void read(F&& line, qint64 maxBytes = 16 << 20)
    {
        if (!m_file.isOpen() && !m_file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
            return;
        if (!m_file.seek(m_offset))
            return;
        const QByteArray chunk = m_file.read(maxBytes);
        if (chunk.isEmpty())
            return;
        m_offset += chunk.size();
        m_partial.append(chunk);
        const char* data = m_partial.constData();
        int start = 0;
        for (int end = m_partial.indexOf('\n'); end >= 0; end = m_partial.indexOf('\n', start)) {
            line(data + start, data + end);
            start = end + 1;
        }
        m_partial.remove(0, start);
    }

    qint64 offset() const { return m_offset; }

    // Gives the disk blocks of what has been read back to the file system once there are at
    // least minBytes of them (the file keeps its size and offsets): an hour's trace at fast pace
    // is about a gigabyte.
    bool release(qint64 minBytes, QString* error)
    {
        const qint64 upTo = (m_offset - m_partial.size()) & ~qint64(4095);
        if (upTo - m_released < minBytes)
            return true;
        if (fallocate(m_file.handle(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, m_released, upTo - m_released) != 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
        m_released = upTo;
        return true;
    }

private:
    QFile m_file;
    qint64 m_offset = 0;
    qint64 m_released = 0;
    QByteArray m_partial;
};

} // namespace bench
