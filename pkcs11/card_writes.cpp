#include "pkcs11/card_writes.hpp"

#include "card/identity_creation.hpp"
#include "card/identity_lookup.hpp"
#include "card/user_card.hpp"
#include "pkcs11/cryptoki.hpp"

namespace keyloft::pkcs11 {
namespace {

// The card is opened for each change, as a command opens it: changes are rare, and the
// connection never outlives the transaction of the thread that made it.
template <class Change>
void onUserToken(Change&& change) {
    const auto registry = card::openUserRegistry();
    const auto token = card::userToken(registry);
    token.writeCommittingEvenOnThrow([&] { change(token); });
}

}  // namespace

card::NewIdentity makeIdentity(const KeyPairRequest& request) {
    const auto registry = card::openUserRegistry();
    auto identity = card::createIdentity(card::userToken(registry),
                                         {.type = request.type, .label = request.label});
    auto& key = identity.items.key;
    key.canSign = request.canSign;
    // The item's flags for the key's type are set already; only the one the key can do changes.
    if (key.canDecrypt.value_or(false))
        key.canDecrypt = request.canDecryptOrDerive;
    else
        key.canPerformKeyExchange = request.canDecryptOrDerive;
    return identity;
}

Bytes addIdentity(card::NewIdentity identity) {
    Bytes hash = identity.hash;
    // Key generation and the self-signed certificate come before the transaction, as in the
    // tool, so that the card is held only while it is written.
    onUserToken([&](const card::Token& token) { card::addIdentity(token, std::move(identity)); });
    return hash;
}

void storeCertificate(ByteView certificate, ByteView hash,
                      const std::optional<std::string>& label) {
    onUserToken([&](const card::Token& token) {
        if (!card::replaceCertificateItem(token, certificate, hash))
            throw CryptokiError(CKR_TEMPLATE_INCONSISTENT);
        if (label) card::relabelIdentity(token, hash, *label);
    });
}

void relabelIdentity(ByteView hash, const std::string& label) {
    onUserToken([&](const card::Token& token) {
        if (!card::relabelIdentity(token, hash, label))
            throw CryptokiError(CKR_OBJECT_HANDLE_INVALID);
    });
}

void removeIdentity(ByteView hash) {
    onUserToken([&](const card::Token& token) {
        card::removeIdentityItems(token, hash);
        card::removeKeyRecord(token, hash);
    });
}

}  // namespace keyloft::pkcs11
