#include "TestSigning.h"
#include "UpdateSignature.h"

#include <QFile>
#include <QtTest>

#include <openssl/evp.h>
#include <openssl/pem.h>

namespace {
const QString kVersion = QStringLiteral("1.1.0");
const QString kChecksum = QStringLiteral("9f2c1d0e5b7a3c4d8e6f0a1b2c3d4e5f60718293a4b5c6d7e8f90a1b2c3d4e5f");

// A PEM key file of devkit/keys, read with OpenSSL (null when it cannot be read).
EVP_PKEY* readKey(const char* path, bool isPrivate)
{
    std::FILE* file = std::fopen(path, "rb");
    if (!file)
        return nullptr;
    EVP_PKEY* key = isPrivate ? PEM_read_PrivateKey(file, nullptr, nullptr, nullptr)
                              : PEM_read_PUBKEY(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    return key;
}

QByteArray rawPublicKey(const char* path)
{
    EVP_PKEY* key = readKey(path, false);
    unsigned char raw[32];
    size_t length = sizeof raw;
    const bool ok = key && EVP_PKEY_get_raw_public_key(key, raw, &length) == 1;
    EVP_PKEY_free(key);
    return ok ? QByteArray(reinterpret_cast<const char*>(raw), int(length)) : QByteArray();
}
} // namespace

class tst_UpdateSignature : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void problem_data();
    void problem();
    void withoutKeyNothingVerifies();
    void builtInIsTheKeyItWasBuiltWith();
};

void tst_UpdateSignature::initTestCase()
{
    QCOMPARE(rawPublicKey(ORVELLO_TEST_PUBLIC_KEY).size(), UpdateSignature::KeyBytes);
    QCOMPARE(signWithKey(testSigningKeyPath(), "x").size(), UpdateSignature::SignatureBytes);
}

void tst_UpdateSignature::problem_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("checksum");
    QTest::addColumn<QString>("signature");
    QTest::addColumn<QString>("problem"); // empty: it verifies

    const QString valid = signatureBy(testSigningKeyPath(), kVersion, kChecksum);
    const QString doesNotVerify = QStringLiteral("the signature does not verify with the device's update key");
    QString flipped = valid;
    flipped[10] = flipped.at(10) == QLatin1Char('A') ? QLatin1Char('B') : QLatin1Char('A');
    const QString nonAscii = QStringLiteral("1.1.0-\u00e9");

    // clang-format off
    QTest::newRow("valid") << kVersion << kChecksum << valid << QString();
    QTest::newRow("valid, non-ASCII version signed as UTF-8") << nonAscii << kChecksum
        << signatureBy(testSigningKeyPath(), nonAscii, kChecksum) << QString();
    QTest::newRow("missing") << kVersion << kChecksum << QString() << "the signature is missing";
    QTest::newRow("not base64") << kVersion << kChecksum << "not base64!" << "the signature is not base64 with padding";
    QTest::newRow("base64 without its padding") << kVersion << kChecksum << valid.chopped(2)
        << "the signature is not base64 with padding";
    QTest::newRow("base64 with a line break") << kVersion << kChecksum << valid.left(40) + '\n' + valid.mid(40)
        << "the signature is not base64 with padding";
    QTest::newRow("wrong length") << kVersion << kChecksum << QString::fromLatin1(QByteArray(63, 'x').toBase64())
        << "the signature is 63 bytes long, an Ed25519 signature is 64";
    QTest::newRow("one bit off") << kVersion << kChecksum << flipped << doesNotVerify;
    QTest::newRow("other key") << kVersion << kChecksum << signatureBy(otherSigningKeyPath(), kVersion, kChecksum)
        << doesNotVerify;
    QTest::newRow("other version") << kVersion << kChecksum << signatureBy(testSigningKeyPath(), "1.0.9", kChecksum)
        << doesNotVerify;
    QTest::newRow("version with the line feed moved") << "1.1.0\n" + kChecksum.left(10) << kChecksum.mid(10)
        << valid << "the checksum is not 64 lowercase hexadecimal digits, which is what the signature covers";
    QTest::newRow("other checksum") << kVersion << QString(kChecksum).replace(0, 1, "0") << valid << doesNotVerify;
    QTest::newRow("uppercase checksum") << kVersion << kChecksum.toUpper()
        << signatureBy(testSigningKeyPath(), kVersion, kChecksum.toUpper())
        << "the checksum is not 64 lowercase hexadecimal digits, which is what the signature covers";
    QTest::newRow("empty checksum") << kVersion << QString() << signatureBy(testSigningKeyPath(), kVersion, QString())
        << "the checksum is not 64 lowercase hexadecimal digits, which is what the signature covers";
    // clang-format on
}

void tst_UpdateSignature::problem()
{
    QFETCH(QString, version);
    QFETCH(QString, checksum);
    QFETCH(QString, signature);
    QFETCH(QString, problem);
    const UpdateSignature check(rawPublicKey(ORVELLO_TEST_PUBLIC_KEY));
    QVERIFY(check.hasKey());
    QCOMPARE(check.problem(version, checksum, signature), problem);
}

void tst_UpdateSignature::withoutKeyNothingVerifies()
{
    const UpdateSignature none{QByteArray()};
    QVERIFY(!none.hasKey());
    QCOMPARE(none.problem(kVersion, kChecksum, signatureBy(testSigningKeyPath(), kVersion, kChecksum)),
             QStringLiteral("the device has no update key to check the signature with"));
    // A key of the wrong size verifies nothing either, and says why.
    const UpdateSignature shortKey(rawPublicKey(ORVELLO_TEST_PUBLIC_KEY).left(31));
    QCOMPARE(shortKey.problem(kVersion, kChecksum, signatureBy(testSigningKeyPath(), kVersion, kChecksum)),
             QStringLiteral("the device's update key is 31 bytes long, not an Ed25519 public key"));
}

// The unit tests' copy of the classes carries the repository's test key (the module carries
// whatever key it was configured with).
void tst_UpdateSignature::builtInIsTheKeyItWasBuiltWith()
{
    const UpdateSignature builtIn = UpdateSignature::builtIn();
    QVERIFY(builtIn.hasKey());
    QCOMPARE(builtIn.problem(kVersion, kChecksum, signatureBy(testSigningKeyPath(), kVersion, kChecksum)), QString());
    QCOMPARE(builtIn.problem(kVersion, kChecksum, signatureBy(otherSigningKeyPath(), kVersion, kChecksum)),
             QStringLiteral("the signature does not verify with the device's update key"));
}

QTEST_GUILESS_MAIN(tst_UpdateSignature)
#include "tst_updatesignature.moc"
