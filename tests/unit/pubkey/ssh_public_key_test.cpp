#include "pubkey/ssh_public_key.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "base/error.hpp"
#include "encoding/base64.hpp"
#include "encoding/hex.hpp"
#include "pubkey/fingerprint.hpp"
#include "public_keys.hpp"
#include "support/temporary_folder.hpp"

namespace keyloft::pubkey {
namespace {

// The blob of a PEM public key, written by Python independently of our encoder.
constexpr const char* independentBlobScript = R"(import sys
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import ec
key = serialization.load_pem_public_key(open(sys.argv[1], 'rb').read())
def string(b): return len(b).to_bytes(4, 'big') + b
def mpint(n):
    b = n.to_bytes((n.bit_length() + 7) // 8, 'big')
    return string(b'\0' + b if b[0] & 0x80 else b)
if isinstance(key, ec.EllipticCurvePublicKey):
    point = key.public_bytes(serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
    blob = (string(b'sk-ecdsa-sha2-nistp256@openssh.com') + string(b'nistp%d' % key.curve.key_size)
            + string(point) + string(b'ssh:'))
else:
    blob = string(b'ssh-rsa') + mpint(key.public_numbers().e) + mpint(key.public_numbers().n)
print(blob.hex().upper(), end='')
)";

class SshBlob : public ::testing::Test {
  protected:
    std::string pem(EVP_PKEY* key) const {
        testing::writePublicKeyPem(key, folder.path() / "key.pem");
        return (folder.path() / "key.pem").string();
    }

    std::string independentBlobHex(EVP_PKEY* key) const {
        std::ofstream(folder.path() / "blob.py") << independentBlobScript;
        return testing::commandOutput("/usr/bin/python3 " + (folder.path() / "blob.py").string() +
                                      " " + pem(key));
    }

    // What `ssh-keygen -lf` prints for an OpenSSH public-key line.
    std::string sshKeygenListing(const std::string& line) const {
        std::ofstream(folder.path() / "key.pub") << line << " test\n";
        return testing::commandOutput("ssh-keygen -lf " + (folder.path() / "key.pub").string());
    }

    testing::TemporaryFolder folder;
};

TEST_F(SshBlob, EcBlobIsTheFidoKeyOfTheRealCurve) {
    for (const auto& [curve, size] : {std::pair{"P-256", 127U}, {"P-384", 159U}, {"P-521", 195U}}) {
        const auto key = testing::makeEcKey(curve);
        const Bytes blob = sshPublicKeyBlob(testing::publicKeyOf(key.get()));
        EXPECT_EQ(blob.size(), size) << curve;
        EXPECT_EQ(encoding::toHexString(blob), independentBlobHex(key.get())) << curve;
    }
}

TEST_F(SshBlob, RsaBlobMatchesTheWrittenExample) {
    const auto key = testing::makeRsaKey(2048);
    const Bytes blob = sshPublicKeyBlob(testing::publicKeyOf(key.get()));
    ASSERT_EQ(blob.size(), 279U);
    const Bytes head{0, 0, 0, 7, 's', 's', 'h', '-', 'r', 's', 'a', 0,
                     0, 0, 3, 1, 0,   1,   0,   0,   1,   1,   0};
    EXPECT_TRUE(std::equal(head.begin(), head.end(), blob.begin()));
    EXPECT_EQ(encoding::toHexString(blob), independentBlobHex(key.get()));
}

TEST_F(SshBlob, FingerprintIsWhatSshKeygenPrints) {
    const auto shown = [](const PublicKeyAttributes& key) {
        return fingerprint(keyHash(key, HashType::ssh), HashType::ssh, HashEncoding::base64);
    };
    // ssh-keygen takes FIDO ECDSA keys on P-256 only; the RSA line is its own conversion of the
    // key.
    const auto ec = testing::makeEcKey("P-256");
    const auto ecKey = testing::publicKeyOf(ec.get());
    EXPECT_EQ(sshKeygenListing("sk-ecdsa-sha2-nistp256@openssh.com " +
                               encoding::base64Encode(sshPublicKeyBlob(ecKey))),
              "256 " + shown(ecKey) + " test (ECDSA-SK)\n");
    const auto rsa = testing::makeRsaKey(3072);
    std::string rsaLine = testing::commandOutput("ssh-keygen -i -m PKCS8 -f " + pem(rsa.get()));
    rsaLine.pop_back();
    EXPECT_EQ(sshKeygenListing(rsaLine),
              "3072 " + shown(testing::publicKeyOf(rsa.get())) + " test (RSA)\n");
}

TEST(SshBlobFailure, StopsAtTheFirstMissingPiece) {
    const auto key = testing::makeEcKey();
    auto noData = testing::publicKeyOf(key.get());
    noData.externalRepresentation.clear();
    try {
        sshPublicKeyBlob(noData);
        ADD_FAILURE() << "no error without public key data";
    } catch (const KeyloftError& error) {
        EXPECT_STREQ(error.what(), "key has invalid public key data");
    }
    auto brokenPoint = testing::publicKeyOf(key.get());
    brokenPoint.externalRepresentation.pop_back();
    auto otherType = testing::publicKeyOf(key.get());
    otherType.keyType = "dsa";
    EXPECT_THROW(sshPublicKeyBlob(brokenPoint), PlatformError);
    EXPECT_THROW(sshPublicKeyBlob(otherType), PlatformError);
}

}  // namespace
}  // namespace keyloft::pubkey
