#include "pubkey/ssh_public_key.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "key_items.hpp"
#include "keyloft/error.hpp"
#include "pubkey/base64.hpp"
#include "pubkey/fingerprint.hpp"
#include "pubkey/hex.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::pubkey {
namespace {

// The blob written by Python from the PEM key, independently of our encoder.
constexpr const char* independentBlobScript = R"(import sys
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
key = serialization.load_pem_public_key(open(sys.argv[1], 'rb').read())
def string(b): return len(b).to_bytes(4, 'big') + b
def mpint(n):
    b = n.to_bytes((n.bit_length() + 7) // 8, 'big')
    return string(b'\0' + b if b[0] & 0x80 else b)
if isinstance(key, ec.EllipticCurvePublicKey):
    curve = {256: b'nistp256', 384: b'nistp384', 521: b'nistp521'}[key.curve.key_size]
    point = key.public_bytes(serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
    blob = string(b'sk-ecdsa-sha2-nistp256@openssh.com') + string(curve) + string(point) + string(b'ssh:')
else:
    numbers = key.public_numbers()
    blob = string(b'ssh-rsa') + mpint(numbers.e) + mpint(numbers.n)
print(blob.hex().upper(), end='')
)";

class SshBlob : public ::testing::Test {
  protected:
    std::filesystem::path pem(EVP_PKEY* key) const {
        const auto path = folder.path() / "key.pem";
        testing::writePublicKeyPem(key, path);
        return path;
    }

    std::string independentBlobHex(EVP_PKEY* key) const {
        const auto script = folder.path() / "blob.py";
        std::ofstream(script) << independentBlobScript;
        return testing::commandOutput("/usr/bin/python3 " + script.string() + " " +
                                      pem(key).string());
    }

    // "<bits> SHA256:<fingerprint> <comment> (<kind>)" as ssh-keygen prints it for the line.
    std::string sshKeygenListing(const std::string& publicKeyLine) const {
        const auto path = folder.path() / "key.pub";
        std::ofstream(path) << publicKeyLine << " test\n";
        return testing::commandOutput("ssh-keygen -lf " + path.string() + " 2>&1");
    }

    testing::TemporaryFolder folder;
};

struct CurveCase {
    const char* curve;
    std::size_t pointSize;
    std::size_t blobSize;
};

class SshEcBlob : public SshBlob, public ::testing::WithParamInterface<CurveCase> {};

TEST_P(SshEcBlob, IsTheFidoKeyOfTheRealCurve) {
    const auto& [curve, pointSize, blobSize] = GetParam();
    const auto key = testing::makeEcKey(curve);
    const auto item = testing::keyItemFor(key.get());
    const Bytes blob = sshPublicKeyBlob(item);

    ASSERT_EQ(blob.size(), blobSize);
    EXPECT_EQ(item.publicKeyData->size(), pointSize);
    EXPECT_EQ(toHexString(blob), independentBlobHex(key.get()));
}

INSTANTIATE_TEST_SUITE_P(Curves, SshEcBlob,
                         ::testing::Values(CurveCase{"P-256", 65, 127}, CurveCase{"P-384", 97, 159},
                                           CurveCase{"P-521", 133, 195}));

TEST_F(SshBlob, RsaBlobMatchesTheWrittenExample) {
    const auto key = testing::makeRsaKey(2048);
    const Bytes blob = sshPublicKeyBlob(testing::keyItemFor(key.get()));
    ASSERT_EQ(blob.size(), 279U);
    const Bytes head{0, 0, 0, 7, 's', 's', 'h', '-', 'r', 's', 'a', 0,
                     0, 0, 3, 1, 0,   1,   0,   0,   1,   1,   0};
    EXPECT_TRUE(std::equal(head.begin(), head.end(), blob.begin()));
    EXPECT_GE(blob[head.size()], 0x80);
    EXPECT_EQ(toHexString(blob), independentBlobHex(key.get()));
}

TEST_F(SshBlob, P256FingerprintIsWhatSshKeygenPrints) {
    const auto key = testing::makeEcKey("P-256");
    const auto item = testing::keyItemFor(key.get());
    const std::string shown =
        fingerprint(keyHash(item, HashType::ssh), HashType::ssh, HashEncoding::base64);
    const std::string line =
        "sk-ecdsa-sha2-nistp256@openssh.com " + base64Encode(sshPublicKeyBlob(item));
    EXPECT_EQ(sshKeygenListing(line), "256 " + shown + " test (ECDSA-SK)\n");
}

TEST_F(SshBlob, RsaFingerprintIsWhatSshKeygenPrintsForItsOwnConversion) {
    const auto key = testing::makeRsaKey(3072);
    const auto item = testing::keyItemFor(key.get());
    const std::string shown =
        fingerprint(keyHash(item, HashType::ssh), HashType::ssh, HashEncoding::base64);
    std::string line =
        testing::commandOutput("ssh-keygen -i -m PKCS8 -f " + pem(key.get()).string());
    while (!line.empty() && line.back() == '\n') line.pop_back();
    EXPECT_EQ(sshKeygenListing(line), "3072 " + shown + " test (RSA)\n");
}

TEST(SshBlobFailure, ReportsEachMissingPieceWithItsMessage) {
    const auto ecKey = testing::makeEcKey("P-256");
    auto noData = testing::keyItemFor(ecKey.get());
    noData.publicKeyData.reset();
    auto otherType = testing::keyItemFor(ecKey.get());
    otherType.keyType = "dsa";
    auto brokenPoint = testing::keyItemFor(ecKey.get());
    brokenPoint.publicKeyData->pop_back();

    try {
        sshPublicKeyBlob(noData);
        ADD_FAILURE() << "no error without public key data";
    } catch (const KeyloftError& error) {
        EXPECT_STREQ(error.what(), "key has invalid public key data");
    }
    EXPECT_THROW(sshPublicKeyBlob(otherType), PlatformError);
    EXPECT_THROW(sshPublicKeyBlob(brokenPoint), PlatformError);
}

}  // namespace
}  // namespace keyloft::pubkey
