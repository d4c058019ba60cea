#include "vrax/vraxpaths.h"

#define VRAX_PATH(function, text) \
    CMPath function() { return CMPath(QStringLiteral(text)); }

VRAX_PATH(VraxOrvelloBrowsePath, "orvello/browse")
VRAX_PATH(VraxOrvelloSdkVersion, "orvello/sdkVersion")
VRAX_PATH(VraxOrvelloSetPairCode, "orvello/setPairCode")
VRAX_PATH(VraxOrvelloPlayLogicPath, "orvello/playLogic")
VRAX_PATH(VraxOrvelloTokenPath, "settings/orvello/token")
VRAX_PATH(VraxOrvelloDeviceId, "settings/orvello/deviceId")
VRAX_PATH(VraxOrvelloMaxBandwidthKbpsPath, "settings/orvello/maxBandwidthKbps")
VRAX_PATH(VraxOrvelloCacheDirPath, "settings/orvello/cacheDir")
VRAX_PATH(VraxOrvelloCacheMaxMbPath, "settings/orvello/cacheMaxMb")
VRAX_PATH(VraxOrvelloCacheRemainMbPath, "settings/orvello/cacheRemainMb")
VRAX_PATH(VraxOrvelloCacheEnabled, "settings/orvello/cacheEnabled")
VRAX_PATH(VraxOrvelloOutputSampleRatePath, "settings/orvello/outputSampleRate")
VRAX_PATH(VraxOrvelloOutputChannelsPath, "settings/orvello/outputChannels")
VRAX_PATH(VraxOrvelloVendorSecretPath, "settings/orvello/vendorSecret")
VRAX_PATH(VraxOrvelloVersionUrl, "settings/orvello/versionUrl")
VRAX_PATH(VraxOrvelloUpdateCheckIntervalSeconds, "settings/orvello/updateCheckIntervalSeconds")
VRAX_PATH(VraxOrvelloProvisioningVendorIdPath, "settings/orvello/provisioningVendorId")
VRAX_PATH(VraxSystemSerialNumberPath, "settings/system/serialNumber")
VRAX_PATH(VraxSystemProductNamePath, "settings/system/productName")
