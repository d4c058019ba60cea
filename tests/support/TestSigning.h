#pragma once

#include <QByteArray>
#include <QString>

// Signatures by the repository's test keys (devkit/keys), as the service would make them.

// The raw Ed25519 signature by the private key in the PEM file at path over text; empty when the
// key cannot be read.
QByteArray signWithKey(const QString& path, const QByteArray& text);
// The base64 text of a signature of version and checksum ("VERSION\nCHECKSUM") by the private key
// in path: what the configuration document's "signature" member carries.
QString signatureBy(const QString& path, const QString& version, const QString& checksum);
// The same by the test key the module is built with.
QString testSignature(const QString& version, const QString& checksum);
// The path of the test signing key and of the second ("another key") one.
QString testSigningKeyPath();
QString otherSigningKeyPath();
