#include "TestSigning.h"

#include <QFile>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <memory>

QByteArray signWithKey(const QString& path, const QByteArray& text)
{
    std::FILE* file = std::fopen(QFile::encodeName(path).constData(), "rb");
    if (!file)
        return QByteArray();
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_PrivateKey(file, nullptr, nullptr, nullptr),
                                                            &EVP_PKEY_free);
    std::fclose(file);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    unsigned char signature[64];
    size_t length = sizeof signature;
    const bool ok = key && context && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1
        && EVP_DigestSign(context.get(), signature, &length, reinterpret_cast<const unsigned char*>(text.constData()),
                          size_t(text.size()))
            == 1;
    return ok ? QByteArray(reinterpret_cast<const char*>(signature), int(length)) : QByteArray();
}

QString signatureBy(const QString& path, const QString& version, const QString& checksum)
{
    return QString::fromLatin1(signWithKey(path, version.toUtf8() + '\n' + checksum.toLatin1()).toBase64());
}

QString testSignature(const QString& version, const QString& checksum)
{
    return signatureBy(testSigningKeyPath(), version, checksum);
}

QString testSigningKeyPath()
{
    return QStringLiteral(ORVELLO_TEST_SIGNING_KEY);
}

QString otherSigningKeyPath()
{
    return QStringLiteral(ORVELLO_OTHER_SIGNING_KEY);
}
