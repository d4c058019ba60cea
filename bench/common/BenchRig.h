#pragma once

// The emulated device as the benchmarks set it up: the build's programs, the two builds of the
// reference player library, a fresh rig and the settings of a player.
#include "DeviceRig.h"

#include <QString>
#include <QVariantHash>

#include <memory>

namespace bench {

// vrax-host, liborvello.so and orvello-service of this build.
DeviceRig::Paths devicePaths();

// The reference player library built as version ("1.0.0", what a fresh device runs, or "1.1.0",
// the update); empty for any other version.
QString referenceLibrary(const QString& version);

// A rig in dir, emptied first, with the reference library 1.0.0 where a developer build finds it.
// A download that an earlier run left in /tmp/orvello is removed: the module would install it as
// an update when it starts. Null with the reason in error.
std::unique_ptr<DeviceRig> freshRig(const QString& dir, QString* error);

// The settings of a 44.1 kHz stereo player with its cache in the rig's directory, checking for
// updates every updateIntervalSeconds (0: never) at the rig's service when it runs. name ("Bench")
// makes the vendor ("vendor-bench"), serial number ("SN-BENCH") and product ("Bench Amp"); paired
// adds the token of an earlier pairing.
QVariantHash playerSettings(const DeviceRig& rig, const QString& name, bool paired, int updateIntervalSeconds);

} // namespace bench
