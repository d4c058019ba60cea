#pragma once

#include <QString>

// The module's scratch directory: where library downloads wait to be installed and where the
// audio pipeline's socket lies. It is "/tmp/orvello" (OrvelloUpdater::TMP_DOWNLOAD_PATH) unless
// the worker, finding that directory untrusted or unusable, has chosen a private directory of
// its own; everything that names a file in it asks here, so the updater, the library store, the
// play logic's stream URI and the audio transfer's socket always agree.
//
// Set by the worker at its construction, on the main thread; read from any thread.
namespace ScratchDirectory {

// The directory in use.
QString path();
// Makes dir the directory in use (the worker, once it has chosen and checked it).
void use(const QString& dir);

// The audio pipeline's socket: path() + "/smt2socketaddress".
QString socketAddress();
// The resource the play logic names to the platform player: "smt2://" + socketAddress().
QString streamUri();

} // namespace ScratchDirectory
