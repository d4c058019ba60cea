#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

typedef struct evp_pkey_st EVP_PKEY;

// An Ed25519 private key that signs documents: the signature of version, a line feed and the
// lowercase checksum, as devices check it, in base64. sign() may be called from any thread.
class Signer
{
public:
    // Reads a PEM private key as `openssl genpkey -algorithm ed25519` writes it; null with the
    // reason in error when the file cannot be read or holds no Ed25519 key.
    static std::shared_ptr<Signer> load(const QString& path, QString* error);
    ~Signer();
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    // Empty when OpenSSL fails to sign.
    QString sign(const QString& version, const QByteArray& checksum) const;

private:
    explicit Signer(EVP_PKEY* key) : m_key(key) {}
    EVP_PKEY* m_key;
};
