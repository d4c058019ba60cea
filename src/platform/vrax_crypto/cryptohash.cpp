#include "crypto/cryptohash.h"

namespace {
QCryptographicHash::Algorithm qtAlgorithm(CryptoHash::Algorithm algorithm)
{
    switch (algorithm) {
    case CryptoHash::Sha1:
        return QCryptographicHash::Sha1;
    case CryptoHash::Sha256:
        return QCryptographicHash::Sha256;
    case CryptoHash::Sha512:
        return QCryptographicHash::Sha512;
    }
    return QCryptographicHash::Sha256;
}
} // namespace

static_assert(CryptoHash::Sha256 == 1, "algorithm values are part of the platform's interface");

CryptoHash::CryptoHash(Algorithm algorithm)
    : m_algorithm(algorithm), m_hash(std::make_unique<QCryptographicHash>(qtAlgorithm(algorithm)))
{
}

CryptoHash::~CryptoHash() = default;

void CryptoHash::update(const QByteArray& data)
{
    m_hash->addData(data);
}

void CryptoHash::update(const char* data, int length)
{
    m_hash->addData(data, length);
}

bool CryptoHash::finalize(QByteArray* digest)
{
    if (!digest)
        return false;
    *digest = m_hash->result();
    m_hash->reset();
    return true;
}
