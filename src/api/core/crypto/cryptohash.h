#pragma once

#include <QByteArray>
#include <QCryptographicHash>

#include <memory>

// A message digest computed piece by piece. Not thread-safe; use one object per thread.
class CryptoHash
{
public:
    // The values are the platform's and stable across releases.
    enum Algorithm {
        Sha1 = 0,
        Sha256 = 1,
        Sha512 = 2,
    };

    explicit CryptoHash(Algorithm algorithm);
    ~CryptoHash();
    CryptoHash(const CryptoHash&) = delete;
    CryptoHash& operator=(const CryptoHash&) = delete;

    Algorithm algorithm() const { return m_algorithm; }

    void update(const QByteArray& data);
    void update(const char* data, int length);
    // Writes the raw digest of everything fed since construction (or the last finalize) into
    // digest and starts over. Returns false, changing nothing, when digest is null.
    bool finalize(QByteArray* digest);

private:
    Algorithm m_algorithm;
    std::unique_ptr<QCryptographicHash> m_hash;
};
