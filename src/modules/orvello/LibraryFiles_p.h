#pragma once

// What the parts of LibraryFiles share: error texts, modes, and the low-level file calls that
// never follow a link. Not for use outside LibraryFiles*.cpp.
#include <QString>

#include <sys/types.h>

namespace LibraryFiles::detail {

inline constexpr qint64 kCopyBlockSize = 65536;

QString systemError(int error);
// "0755": a mode's permission bits as an octal text.
QString modeText(mode_t mode);

int openNoFollow(const QString& path, int flags);
// The mode and owner the module gives what it creates, set on the open object and checked.
// byName: fd was opened with O_PATH (fchmod does not take those), so the mode is set through the
// descriptor's name under /proc, which names that very object.
bool setMode(int fd, mode_t mode, const QString& path, QString* error, bool byName = false);
bool writeAll(int fd, const char* data, qint64 length);
// fsync of the directory path is in, so a name just made, changed or removed survives a power cut.
bool syncDirectoryOf(const QString& path, QString* error);

} // namespace LibraryFiles::detail
