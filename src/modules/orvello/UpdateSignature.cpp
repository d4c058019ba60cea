#include "UpdateSignature.h"

#include "UpdatePublicKey.h"

#include <openssl/evp.h>

#include <memory>

namespace {

struct PkeyFree
{
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdCtxFree
{
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

} // namespace

bool UpdateSignature::isChecksumText(const QString& text)
{
    if (text.size() != 64)
        return false;
    for (const QChar c : text)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    return true;
}

UpdateSignature UpdateSignature::builtIn()
{
    return UpdateSignature(
        QByteArray(reinterpret_cast<const char*>(UpdatePublicKey::data), int(UpdatePublicKey::size)));
}

UpdateSignature::UpdateSignature(const QByteArray& rawPublicKey) : m_key(rawPublicKey)
{
}

QString UpdateSignature::problem(const QString& version, const QString& checksum, const QString& signature) const
{
    if (!hasKey())
        return QStringLiteral("the device has no update key to check the signature with");
    if (signature.isEmpty())
        return QStringLiteral("the signature is missing");
    // Only the canonical form: what decodes must encode back to the very same text.
    const QByteArray encoded = signature.toLatin1();
    const auto decoded = QByteArray::fromBase64Encoding(encoded, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.toBase64() != encoded || QString::fromLatin1(encoded) != signature)
        return QStringLiteral("the signature is not base64 with padding");
    if (decoded.decoded.size() != SignatureBytes)
        return QStringLiteral("the signature is %1 bytes long, an Ed25519 signature is %2")
            .arg(decoded.decoded.size())
            .arg(SignatureBytes);
    // The signed text holds the checksum as lowercase hex; any other spelling is another text.
    if (!isChecksumText(checksum))
        return QStringLiteral(
            "the checksum is not 64 lowercase hexadecimal digits, which is what the signature covers");
    if (m_key.size() != KeyBytes)
        return QStringLiteral("the device's update key is %1 bytes long, not an Ed25519 public key").arg(m_key.size());

    const std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_PKEY_new_raw_public_key(
        EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(m_key.constData()), size_t(m_key.size())));
    const std::unique_ptr<EVP_MD_CTX, MdCtxFree> context(EVP_MD_CTX_new());
    if (!key || !context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return QStringLiteral("the device's update key cannot be used for Ed25519");
    const QByteArray message = version.toUtf8() + '\n' + checksum.toLatin1();
    const auto* signatureBytes = reinterpret_cast<const unsigned char*>(decoded.decoded.constData());
    const auto* messageBytes = reinterpret_cast<const unsigned char*>(message.constData());
    const int verified = EVP_DigestVerify(context.get(), signatureBytes, size_t(decoded.decoded.size()), messageBytes,
                                          size_t(message.size()));
    if (verified != 1)
        return QStringLiteral("the signature does not verify with the device's update key");
    return QString();
}
