// Signers, searchers and a managing session in one process while the tool changes the card: the
// module's shared state is replaced under running calls. Meant for the sanitizer builds; its
// length is KEYLOFT_STRESS_SECONDS (default 15).
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>

#include "card_session.hpp"
#include "encoding/hex.hpp"
#include "platform/crypto/digest.hpp"

namespace keyloft::testing {
namespace {

using Clock = std::chrono::steady_clock;
using EvpKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

const Bytes digest =
    platform::crypto::digest(platform::crypto::DigestAlgorithm::sha256, bytesOf("stress"));

std::chrono::seconds stressLength() {
    const char* seconds = std::getenv("KEYLOFT_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 15);
}

EvpKey publicKeyOf(const Bytes& certificate) {
    const unsigned char* cursor = certificate.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &cursor, static_cast<long>(certificate.size())), X509_free);
    return {x509 ? X509_get_pubkey(x509.get()) : nullptr, EVP_PKEY_free};
}

bool verifiesOverDigest(EVP_PKEY* key, const Bytes& raw) {
    const auto half = static_cast<int>(raw.size() / 2);
    std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature(ECDSA_SIG_new(),
                                                                    ECDSA_SIG_free);
    ECDSA_SIG_set0(signature.get(), BN_bin2bn(raw.data(), half, nullptr),
                   BN_bin2bn(raw.data() + half, half, nullptr));
    unsigned char* der = nullptr;
    const int size = i2d_ECDSA_SIG(signature.get(), &der);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    const bool good = EVP_PKEY_verify_init(context.get()) == 1 &&
                      EVP_PKEY_verify(context.get(), der, static_cast<std::size_t>(size),
                                      digest.data(), digest.size()) == 1;
    OPENSSL_free(der);
    return good;
}

// What every thread saw, by return value, and the signatures that did not verify.
class Tally {
  public:
    void count(const std::string& what, CK_RV rv) {
        const std::lock_guard guard(lock_);
        ++seen_[{what, rv}];
    }
    void wrongSignature() { ++wrongSignatures_; }

    // Counts of anything but the allowed values for the kind of call.
    std::string unexpected(const std::map<std::string, std::vector<CK_RV>>& allowed) const {
        std::string report;
        for (const auto& [key, times] : seen_) {
            const auto& [what, rv] = key;
            const auto& fine = allowed.at(what);
            if (std::ranges::find(fine, rv) == fine.end())
                report += what + " answered " + std::to_string(rv) + " " + std::to_string(times) +
                          " times\n";
        }
        return report;
    }
    int wrongSignatures() const { return wrongSignatures_; }
    long total(const std::string& what, CK_RV rv) const {
        const auto found = seen_.find({what, rv});
        return found == seen_.end() ? 0 : found->second;
    }

  private:
    mutable std::mutex lock_;
    std::map<std::pair<std::string, CK_RV>, long> seen_;
    std::atomic<int> wrongSignatures_ = 0;
};

class CardChanges : public CardSession {
  protected:
    std::vector<CK_OBJECT_HANDLE> findIn(CK_SESSION_HANDLE own, CK_OBJECT_CLASS objectClass,
                                         Tally& tally) const {
        CK_ATTRIBUTE byClass = attribute(CKA_CLASS, &objectClass, sizeof objectClass);
        std::vector<CK_OBJECT_HANDLE> found(256);
        CK_ULONG count = 0;
        CK_RV rv = p11.C_FindObjectsInit(own, &byClass, 1);
        if (rv == CKR_OK) rv = p11.C_FindObjects(own, found.data(), found.size(), &count);
        if (rv == CKR_OK) rv = p11.C_FindObjectsFinal(own);
        tally.count("search", rv);
        found.resize(rv == CKR_OK ? count : 0);
        return found;
    }

    CK_RV read(CK_SESSION_HANDLE own, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE type,
               Bytes& out) const {
        CK_ATTRIBUTE request{type, nullptr, 0};
        CK_RV rv = p11.C_GetAttributeValue(own, handle, &request, 1);
        if (rv != CKR_OK) return rv;
        out.resize(request.ulValueLen);
        request.pValue = out.data();
        return p11.C_GetAttributeValue(own, handle, &request, 1);
    }

    // Signs with each private key on the slot, checking each signature against the certificate
    // of the key's id.
    void signEach(CK_SESSION_HANDLE own, Tally& tally) const {
        std::map<Bytes, Bytes> certificates;  // by id
        for (const auto handle : findIn(own, CKO_CERTIFICATE, tally)) {
            Bytes id, value;
            const CK_RV rv = read(own, handle, CKA_ID, id) == CKR_OK
                                 ? read(own, handle, CKA_VALUE, value)
                                 : CKR_OBJECT_HANDLE_INVALID;
            tally.count("read", rv);
            if (rv == CKR_OK) certificates[id] = value;
        }
        for (const auto key : findIn(own, CKO_PRIVATE_KEY, tally)) {
            Bytes id;
            const CK_RV readRV = read(own, key, CKA_ID, id);
            tally.count("read", readRV);
            CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
            Bytes signature(132);
            CK_ULONG size = signature.size();
            CK_RV rv = p11.C_SignInit(own, &ecdsa, key);
            if (rv == CKR_OK)
                rv = p11.C_Sign(own, const_cast<CK_BYTE*>(digest.data()), digest.size(),
                                signature.data(), &size);
            tally.count("sign", rv);
            if (rv != CKR_OK || readRV != CKR_OK || !certificates.contains(id)) continue;
            signature.resize(size);
            const auto publicKey = publicKeyOf(certificates[id]);
            if (!publicKey || !verifiesOverDigest(publicKey.get(), signature))
                tally.wrongSignature();
        }
    }

    void deleteIdentity(CK_OBJECT_HANDLE key) const {
        runTool({"delete-identity", "-h", encoding::toHexString(value(key, CKA_ID))});
    }

    // Makes an identity through the module and takes it away again.
    void manageOnce(CK_SESSION_HANDLE own, Tally& tally) const {
        const Bytes curve = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
        CK_BBOOL yes = CK_TRUE;
        const std::string label = "managed";
        std::vector<CK_ATTRIBUTE> publicTemplate = {
            attribute(CKA_TOKEN, &yes, sizeof yes),
            attribute(CKA_EC_PARAMS, curve.data(), curve.size())};
        std::vector<CK_ATTRIBUTE> privateTemplate = {
            attribute(CKA_TOKEN, &yes, sizeof yes),
            attribute(CKA_LABEL, label.data(), label.size())};
        CK_MECHANISM generate{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
        CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE, privateKey = CK_INVALID_HANDLE;
        CK_RV rv = p11.C_GenerateKeyPair(own, &generate, publicTemplate.data(),
                                         publicTemplate.size(), privateTemplate.data(),
                                         privateTemplate.size(), &publicKey, &privateKey);
        tally.count("generate", rv);
        if (rv != CKR_OK) return;
        tally.count("destroy", p11.C_DestroyObject(own, privateKey));
    }
};

// The tool creates and deletes identities while the module's threads search, sign and manage:
// nothing a thread does may read freed state, fail on a healthy key, or give a wrong signature.
TEST_F(CardChanges, ThreadsKeepWorkingWhileTheToolChangesTheCard) {
    createIdentity("stress stays");
    createIdentity("stress stays too", "p-384");
    const auto deadline = Clock::now() + stressLength();
    Tally tally;
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            CK_SESSION_HANDLE own = CK_INVALID_HANDLE;
            ASSERT_EQ(p11.C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &own), CKR_OK);
            while (!stop) signEach(own, tally);
            p11.C_CloseSession(own);
        });
    }
    threads.emplace_back([&] {
        CK_SESSION_HANDLE own = CK_INVALID_HANDLE;
        ASSERT_EQ(p11.C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &own),
                  CKR_OK);
        while (!stop) manageOnce(own, tally);
        p11.C_CloseSession(own);
    });
    int rounds = 0;
    while (Clock::now() < deadline) {
        const std::string label = "churn " + std::to_string(rounds++);
        createIdentity(label);
        deleteIdentity(object(CKO_PRIVATE_KEY, label));
    }
    stop = true;
    for (auto& thread : threads) thread.join();
    // The card is shared with the other tests of the process.
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    for (const auto key : find({attribute(CKA_CLASS, &privateKey, sizeof privateKey)}))
        deleteIdentity(key);

    // A key or object removed between its search and its use is the only failure allowed.
    const std::vector<CK_RV> gone = {CKR_OK, CKR_KEY_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID};
    EXPECT_EQ(tally.unexpected({{"search", {CKR_OK}},
                                {"read", gone},
                                {"sign", gone},
                                {"generate", {CKR_OK}},
                                {"destroy", gone}}),
              "");
    EXPECT_EQ(tally.wrongSignatures(), 0);
    std::cout << "tool rounds " << rounds << ", signatures " << tally.total("sign", CKR_OK)
              << ", key pairs made through the module " << tally.total("generate", CKR_OK)
              << ", searches " << tally.total("search", CKR_OK) << "\n";
    EXPECT_GT(rounds, 0);
    EXPECT_GT(tally.total("sign", CKR_OK), 0);
    EXPECT_GT(tally.total("generate", CKR_OK), 0);
}

}  // namespace
}  // namespace keyloft::testing
