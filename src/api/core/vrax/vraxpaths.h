#pragma once

#include "model/cmpath.h"

// Paths of the Orvello Streams service's nodes and settings.
CMPath VraxOrvelloBrowsePath();
CMPath VraxOrvelloSdkVersion();
CMPath VraxOrvelloSetPairCode();
CMPath VraxOrvelloPlayLogicPath();
CMPath VraxOrvelloTokenPath();
CMPath VraxOrvelloDeviceId();
CMPath VraxOrvelloMaxBandwidthKbpsPath();
CMPath VraxOrvelloCacheDirPath();
CMPath VraxOrvelloCacheMaxMbPath();
CMPath VraxOrvelloCacheRemainMbPath();
CMPath VraxOrvelloCacheEnabled();
CMPath VraxOrvelloOutputSampleRatePath();
CMPath VraxOrvelloOutputChannelsPath();
CMPath VraxOrvelloVendorSecretPath();
CMPath VraxOrvelloVersionUrl();
CMPath VraxOrvelloUpdateCheckIntervalSeconds();
CMPath VraxOrvelloProvisioningVendorIdPath();

// Paths of the device's own settings.
CMPath VraxSystemSerialNumberPath();
CMPath VraxSystemProductNamePath();
