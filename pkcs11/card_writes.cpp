#include "pkcs11/card_writes.hpp"

#include "keys/stored_key_codec.hpp"
#include "pkcs11/cryptoki.hpp"
#include "store/identity_creation.hpp"
#include "store/identity_lookup.hpp"
#include "store/user_card.hpp"

namespace keyloft::pkcs11 {
namespace {

// The card is opened for each change, as a command opens it: changes are rare, and the
// connection never outlives the transaction of the thread that made it.
template <class Change>
void onUserToken(Change&& change) {
    const auto registry = store::openUserRegistry();
    const auto token = store::userToken(registry);
    token.writeTransaction([&] { change(token); });
}

}  // namespace

store::NewIdentity makeIdentity(const KeyPairRequest& request) {
    const auto registry = store::openUserRegistry();
    const bool tpmCard = keys::holdsTpmKeys(store::userToken(registry).configurationData());
    auto identity = store::makeSelfSignedIdentity(request.type, request.label, tpmCard);
    identity.items.key.canSign = request.canSign;
    identity.items.key.canPerformKeyExchange = request.canDerive;
    return identity;
}

Bytes addIdentity(store::NewIdentity identity) {
    // Key generation and the self-signed certificate come before the transaction, as in the
    // tool, so that the card is held only while it is written.
    onUserToken([&](const store::TesseraTokenConfiguration& token) {
        store::IdentityAdditions additions(token);
        additions.add(identity.hash, std::move(identity.storage), std::move(identity.items));
        additions.write();
    });
    return identity.hash;
}

void storeCertificate(ByteView certificate, ByteView hash,
                      const std::optional<std::string>& label) {
    onUserToken([&](const store::TesseraTokenConfiguration& token) {
        if (!store::replaceCertificateItem(token, certificate, hash))
            throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
        if (label) store::relabelIdentity(token, hash, *label);
    });
}

void relabelIdentity(ByteView hash, const std::string& label) {
    onUserToken([&](const store::TesseraTokenConfiguration& token) {
        if (!store::relabelIdentity(token, hash, label))
            throw CryptokiError(CKR_OBJECT_HANDLE_INVALID);
    });
}

void removeIdentity(ByteView hash) {
    onUserToken([&](const store::TesseraTokenConfiguration& token) {
        store::removeIdentityItems(token, hash);
        store::removeKeyRecord(token, hash);
    });
}

}  // namespace keyloft::pkcs11
