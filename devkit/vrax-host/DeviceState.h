#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

class CMNode;
class QVariant;
namespace vrax {
enum class AudioPace;
class DevicePlayer;
class Platform;
}

// The emulated device's state as JSON, the same for the control API's answers and the page's
// events. Main thread.
namespace deviceState {

// Settings whose value never leaves the host (the pairing token, the vendor's secret): the
// control API, the page and the host's log say only whether one is set.
bool isSecret(const QString& path);
// Inserts what may be shown of the typed value at path into json: "value", or for a secret
// "secret": true and "set" (a non-empty value).
void insertValue(QJsonObject* json, const QString& path, const QVariant& value);

// path, kind (list, value, action, node), title, and value (as insertValue gives it) or rows.
QJsonObject node(const CMNode* node);
// Every published node, by path.
QJsonArray nodes(const vrax::Platform& platform);
// The play logic at path: exists, state, title, artist, album, icon, duration, playTime.
QJsonObject playLogic(const QString& path);
// volume (0 to 100) and muted.
QJsonObject volume();
// The audio pipeline's counters.
QJsonObject pipeline(const vrax::DevicePlayer& player, vrax::AudioPace pace);
// What the device's settings say about it: product, serial number, and whether it is paired
// (with its device id); never the token or the vendor's secret.
QJsonObject device();

} // namespace deviceState
