#pragma once

#include <QByteArray>
#include <QString>

// The service's signature of an offered library: Ed25519 (RFC 8032) over the UTF-8 bytes of
// the offered version, one line feed and the checksum as 64 lowercase hexadecimal digits, sent
// in base64 with padding. A plain value; safe to use from any thread.
class UpdateSignature
{
public:
    // The key this module was built with (the CMake cache variable ORVELLO_UPDATE_PUBLIC_KEY);
    // without one, hasKey() is false.
    static UpdateSignature builtIn();

    // rawPublicKey: the 32 bytes of an Ed25519 public key, or empty for no key.
    explicit UpdateSignature(const QByteArray& rawPublicKey);

    bool hasKey() const { return !m_key.isEmpty(); }

    // What keeps signature from authenticating version and checksum with this key, in words
    // for a log line ("the signature is missing", "... does not verify with the device's
    // update key"); empty when it verifies. Without a key nothing verifies.
    QString problem(const QString& version, const QString& checksum, const QString& signature) const;

    // A checksum as the service writes it and the signature covers it: the SHA-256 of the file in
    // 64 lowercase hexadecimal digits.
    static bool isChecksumText(const QString& text);

    static constexpr int KeyBytes = 32;
    static constexpr int SignatureBytes = 64;

private:
    QByteArray m_key;
};
