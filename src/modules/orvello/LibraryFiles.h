#pragma once

#include "vrax/vraxorvelloversioninfo.h"

#include <QByteArray>
#include <QString>

// The player library's files: whether one can be mapped safely, and the writes that must
// survive a power cut. Used by the library host and the updater on the worker's thread.
namespace LibraryFiles {

// What keeps path from being loaded as a shared object of this process: not readable, not an
// ELF file, another class, byte order or machine, not a shared object, or program headers or a
// loadable segment ending past the end of the file (mapping that raises SIGBUS on first touch).
// Empty when the file is complete.
QString sharedObjectProblem(const QString& path);

// Copies from to to (created or truncated) and flushes it to disk; sha256 gets the raw digest
// of the bytes copied. On failure error says what went wrong and to may hold a partial copy.
bool copyDurably(const QString& from, const QString& to, QByteArray* sha256, QString* error);

// Lowercase hexadecimal SHA-256 of the file at path; empty when it cannot be read.
QString sha256Hex(const QString& path);

// Gives the file at existing a second name (a hard link; a durable copy where the file system
// has no links). An existing name is not replaced.
bool addName(const QString& existing, const QString& name, QString* error);

// Puts from in the place of to in one step (rename(2)) and flushes the directory: after a power
// cut to is the old or the new file, never missing or partial. Both must be in one directory.
bool replace(const QString& from, const QString& to, QString* error);

// Removes path and flushes its directory. A missing file counts as removed.
bool removeDurably(const QString& path, QString* error);

// A small JSON record of a library version and its checksum ({"version", "checksum"}, the
// shape of the service's configuration document), replaced atomically. A non-empty signature
// (the document's, for a verified download) is kept as "signature", so the record can be
// checked again before the file is installed.
bool writeRecord(const QString& path, const QString& version, const QString& checksum, QString* error,
                 const QString& signature = QString());
// The record at path; empty when there is none or it cannot be read.
VraxOrvelloVersionInfo readRecord(const QString& path);

} // namespace LibraryFiles
