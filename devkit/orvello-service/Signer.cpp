#include "Signer.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <QFile>

#include <cstdio>

std::shared_ptr<Signer> Signer::load(const QString& path, QString* error)
{
    const QByteArray encodedPath = QFile::encodeName(path);
    std::FILE* file = std::fopen(encodedPath.constData(), "rb");
    if (!file) {
        *error = QStringLiteral("cannot read the signing key %1").arg(path);
        return nullptr;
    }
    EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (!key || EVP_PKEY_id(key) != EVP_PKEY_ED25519) {
        EVP_PKEY_free(key);
        *error = QStringLiteral("%1 is not an Ed25519 private key in PEM").arg(path);
        return nullptr;
    }
    return std::shared_ptr<Signer>(new Signer(key));
}

Signer::~Signer()
{
    EVP_PKEY_free(m_key);
}

QString Signer::sign(const QString& version, const QByteArray& checksum) const
{
    const QByteArray message = version.toUtf8() + '\n' + checksum.toLower();
    unsigned char signature[64];
    size_t length = sizeof signature;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    const bool ok = context && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, m_key) == 1
        && EVP_DigestSign(context, signature, &length, reinterpret_cast<const unsigned char*>(message.constData()),
                          size_t(message.size())) == 1;
    EVP_MD_CTX_free(context);
    if (!ok)
        return QString();
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(signature), int(length)).toBase64());
}
