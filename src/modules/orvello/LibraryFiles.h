#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

// A library download that passed verification, as the updater hands it to the library store and
// as its record on disk keeps it. Also the shape of the record of an update that was rolled back.
struct VerifiedDownload
{
    QString version;
    // Lowercase hexadecimal SHA-256 of the bytes that were verified: 64 characters.
    QString checksum;
    // The service's signature text (base64) from the configuration document, carried untouched;
    // may be empty.
    QString signature;

    bool isEmpty() const { return checksum.isEmpty(); }
    friend bool operator==(const VerifiedDownload& a, const VerifiedDownload& b)
    {
        return a.version == b.version && a.checksum == b.checksum && a.signature == b.signature;
    }
};

// The player library's files at the lowest level: whether one can be mapped safely, whether a
// directory or a file can be trusted, creation that never goes through a link, and the writes
// that must survive a power cut. Used by the library store and the updater on the worker's
// thread; nothing here keeps state.
namespace LibraryFiles {

// What keeps path from being loaded as a shared object of this process: not readable, not an
// ELF file, another class, byte order or machine, not a shared object, or program headers or a
// loadable segment ending past the end of the file (mapping that raises SIGBUS on first touch).
// Empty when the file is complete.
QString sharedObjectProblem(const QString& path);

// Why nobody but this process's effective user (and root) is known to control what path names:
// the file is not a regular file, is owned by another account or is writable by its group or
// others; the directory it really lives in (symbolic links followed) is writable by its group or
// others or owned by another account; or a directory or link on the way to it could be changed by
// another account (writable by others without the sticky bit, or owned by another account).
// Relative paths start at the working directory. Empty when the file can be trusted.
QString fileTrustProblem(const QString& path);

// Why path is not a directory this process may keep files in: not a real directory (missing, a
// symbolic link, something else), not owned by this process's effective user, writable by its
// group or others, or reached through a directory or link another account could change. Empty
// when it is.
QString directoryTrustProblem(const QString& path);

// Creates the directory path with mode 0700 whatever the umask (the mode is set and checked on
// the directory itself); an existing directory is left as it is. Missing parents are created the
// same way. False with the reason in error.
bool makeDirectory(const QString& path, QString* error);

// Creates a new directory from pattern (its last six characters "XXXXXX", as mkdtemp(3) takes
// it) with mode 0700, checked after creation; its path, or empty with the reason in error.
QString makePrivateDirectory(const QString& pattern, QString* error);

// Creates path as a new regular file with mode, whatever the umask, never through a symbolic
// link and never an existing file: an open, writable descriptor, or -1 with the reason in error.
int createExclusive(const QString& path, mode_t mode, QString* error);

// Copies from to to, a new file (an existing file or link at to is an error) with mode 0600,
// and flushes it to disk; sha256 gets the raw digest of the bytes copied. from is opened without
// following a link. On failure error says what went wrong and to may hold a partial copy.
bool copyDurably(const QString& from, const QString& to, QByteArray* sha256, QString* error);

// Lowercase hexadecimal SHA-256 of the file at path (not followed if it is a link); empty when it
// cannot be read.
QString sha256Hex(const QString& path);

// Gives the file at existing a second name (a hard link; a durable copy where the file system
// has no links). An existing name is not replaced.
bool addName(const QString& existing, const QString& name, QString* error);

// Puts from in the place of to in one step (rename(2)) and flushes the directory: after a power
// cut to is the old or the new file, never missing or partial. Both must be in one directory.
bool replace(const QString& from, const QString& to, QString* error);

// Removes path and flushes its directory. A missing file counts as removed.
bool removeDurably(const QString& path, QString* error);

// The text of a record: {"version", "checksum", "signature"}, the members of the service's
// configuration document that the download was verified against.
QByteArray recordText(const VerifiedDownload& record);
// The record in text; empty unless text is a JSON object of at most 1 MiB whose "checksum" is
// 64 lowercase hexadecimal digits, whose "version" is text and whose "signature", when present,
// is text. What is not a record never passes for one.
VerifiedDownload parseRecord(const QByteArray& text);
// Writes the record at path, replacing it atomically (a new file, mode 0600, renamed over it).
// A record too long for parseRecord is not written.
bool writeRecord(const QString& path, const VerifiedDownload& record, QString* error);
// The record at path (a regular file, not followed if it is a link); empty when there is none or
// it cannot be read or parsed.
VerifiedDownload readRecord(const QString& path);

} // namespace LibraryFiles
