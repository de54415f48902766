#include "pkcs11/token_objects.hpp"

#include <algorithm>

#include "base/control_characters.hpp"
#include "base/public_key_attributes.hpp"
#include "der/object_identifiers.hpp"
#include "der/reader.hpp"
#include "der/record.hpp"
#include "keys/key_access.hpp"
#include "keys/key_creation.hpp"
#include "pkcs11/mechanisms.hpp"
#include "x509/certificate_reader.hpp"

namespace keyloft::pkcs11 {
namespace {

// CK_CERTIFICATE_CATEGORY_UNSPECIFIED, which the header does not name.
constexpr CK_ULONG certificateCategoryUnspecified = 0;

Bytes textValue(const std::string* text) {
    if (text == nullptr) return {};
    // Applications print labels and write them into files line by line (ssh-keygen -D).
    const std::string printable = withoutControlCharacters(*text);
    return Bytes(printable.begin(), printable.end());
}

Bytes mechanismList(CK_KEY_TYPE keyType) {
    const auto types = mechanismsFor(keyType);
    const auto* first = reinterpret_cast<const std::uint8_t*>(types.data());
    return Bytes(first, first + types.size() * sizeof(CK_MECHANISM_TYPE));
}

// Attributes every object here shares: token objects whose label applications may change (for
// the whole identity), and whose keys they may destroy (the identity with them).
AttributeSet commonAttributes(CK_OBJECT_CLASS objectClass, ByteView objectID,
                              const std::string* label) {
    AttributeSet attributes;
    attributes.setUlong(CKA_CLASS, objectClass);
    attributes.setBool(CKA_TOKEN, true);
    attributes.setBool(CKA_PRIVATE, false);
    attributes.setBool(CKA_MODIFIABLE, true);
    attributes.setBool(CKA_COPYABLE, false);
    attributes.setBool(CKA_DESTROYABLE, objectClass != CKO_CERTIFICATE);
    attributes.set(CKA_LABEL, textValue(label));
    attributes.set(CKA_ID, Bytes(objectID.begin(), objectID.end()));
    return attributes;
}

TokenObject certificateObject(const platform::token_store::CertificateItem& item,
                              const std::string* label) {
    auto attributes = commonAttributes(CKO_CERTIFICATE, item.objectID, label);
    attributes.setUlong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    attributes.setBool(CKA_TRUSTED, false);
    attributes.setUlong(CKA_CERTIFICATE_CATEGORY, certificateCategoryUnspecified);
    attributes.set(CKA_VALUE, item.certificate);
    attributes.set(CKA_START_DATE, {});
    attributes.set(CKA_END_DATE, {});
    const auto fields = x509::readCertificate(item.certificate);
    attributes.set(CKA_SUBJECT, fields ? bytesOf(fields->subject()) : Bytes{});
    attributes.set(CKA_ISSUER, fields ? bytesOf(fields->issuer()) : Bytes{});
    attributes.set(CKA_SERIAL_NUMBER, fields ? bytesOf(fields->serialNumber()) : Bytes{});
    return {{CKO_CERTIFICATE, item.objectID}, std::move(attributes), std::nullopt};
}

struct RsaNumbers {
    Bytes modulus;
    Bytes exponent;
};

// Unsigned big-endian, without the sign byte DER may put in front.
Bytes magnitude(const der::Element& integer) {
    ByteView bytes = integer.content;
    while (bytes.size() > 1 && bytes[0] == 0) bytes = bytes.subspan(1);
    return {bytes.begin(), bytes.end()};
}

std::optional<RsaNumbers> rsaNumbers(ByteView rsaPublicKey) {
    const auto parsed = der::readSingleElement(rsaPublicKey);
    if (!parsed || parsed->tag != der::tag::sequence) return std::nullopt;
    der::Cursor numbers(*parsed);
    const auto modulus = numbers.next(der::tag::integer);
    const auto exponent = numbers.next(der::tag::integer);
    if (!modulus || !exponent || !numbers.atEnd()) return std::nullopt;
    return RsaNumbers{magnitude(*modulus), magnitude(*exponent)};
}

// Attributes of the public key itself, shared by both key objects; false when the key cannot
// be described.
bool describeKey(const PublicKeyAttributes& key, AttributeSet& attributes, CK_KEY_TYPE& keyType) {
    if (key.keyType == keyTypeEC) {
        const ByteView curve = der::curveOidForSize(key.sizeInBits);
        if (curve.empty()) return false;
        keyType = CKK_EC;
        attributes.set(CKA_EC_PARAMS, der::encode(der::oidRecord(curve)));
        return true;
    }
    if (key.keyType == keyTypeRSA) {
        const auto numbers = rsaNumbers(key.externalRepresentation);
        if (!numbers) return false;
        keyType = CKK_RSA;
        attributes.set(CKA_MODULUS, numbers->modulus);
        attributes.set(CKA_PUBLIC_EXPONENT, numbers->exponent);
        return true;
    }
    return false;
}

TokenObject keyObject(CK_OBJECT_CLASS objectClass, const Bytes& objectID, AttributeSet attributes,
                      const KeyFacts& facts) {
    TokenObject object;
    object.identity.objectClass = objectClass;
    object.identity.objectID = objectID;
    object.attributes = std::move(attributes);
    object.key = facts;
    return object;
}

struct Capabilities {
    bool sign;
    bool decrypt;
    bool derive;
};

// Unset flags take the defaults the tool itself writes for the key type.
Capabilities capabilitiesOf(const platform::token_store::KeyItem& item, CK_KEY_TYPE keyType) {
    return {item.canSign.value_or(true), item.canDecrypt.value_or(keyType == CKK_RSA),
            item.canPerformKeyExchange.value_or(keyType == CKK_EC)};
}

void appendKeyObjects(const platform::token_store::KeyItem& item, const card::IdentityKey& key,
                      const std::string* label, PrivateKeyCustody custody,
                      std::vector<TokenObject>& objects) {
    AttributeSet keyAttributes;
    CK_KEY_TYPE keyType = 0;
    if (!describeKey(key.publicKey, keyAttributes, keyType)) return;
    const auto fields = x509::readCertificate(item.certificate);
    const Capabilities can = capabilitiesOf(item, keyType);
    const KeyFacts facts{keyType, static_cast<CK_ULONG>(key.publicKey.sizeInBits),
                         key.publicKeyHash, key.publicKey.externalRepresentation};

    auto shared = [&](CK_OBJECT_CLASS objectClass) {
        auto attributes = commonAttributes(objectClass, item.objectID, label);
        attributes.setUlong(CKA_KEY_TYPE, keyType);
        attributes.set(CKA_SUBJECT, fields ? bytesOf(fields->subject()) : Bytes{});
        attributes.set(CKA_PUBLIC_KEY_INFO,
                       fields ? bytesOf(fields->subjectPublicKeyInfo()) : Bytes{});
        attributes.set(CKA_START_DATE, {});
        attributes.set(CKA_END_DATE, {});
        attributes.set(CKA_ALLOWED_MECHANISMS, mechanismList(keyType));
        for (const auto type : {CKA_EC_PARAMS, CKA_MODULUS, CKA_PUBLIC_EXPONENT}) {
            if (const Bytes* value = keyAttributes.find(type)) attributes.set(type, *value);
        }
        return attributes;
    };

    // A key pair's halves agree: the public key verifies what the private key signs and
    // encrypts what it decrypts (both done by the module), and carries the private key's derive
    // flag, which is all a public key's CKA_DERIVE can say.
    auto publicKey = shared(CKO_PUBLIC_KEY);
    publicKey.setBool(CKA_VERIFY, can.sign);
    publicKey.setBool(CKA_ENCRYPT, can.decrypt);
    publicKey.setBool(CKA_DERIVE, can.derive);
    publicKey.setBool(CKA_VERIFY_RECOVER, false);
    publicKey.setBool(CKA_WRAP, false);
    publicKey.setBool(CKA_TRUSTED, false);
    publicKey.setBool(CKA_LOCAL, false);
    publicKey.setUlong(CKA_KEY_GEN_MECHANISM, CK_UNAVAILABLE_INFORMATION);
    if (keyType == CKK_EC) {
        publicKey.set(CKA_EC_POINT,
                      der::encode(der::octetStringRecord(key.publicKey.externalRepresentation)));
    } else {
        publicKey.setUlong(CKA_MODULUS_BITS, facts.sizeInBits);
    }
    objects.push_back(keyObject(CKO_PUBLIC_KEY, item.objectID, std::move(publicKey), facts));

    if (custody.kind == PrivateKeyCustody::Kind::none) return;
    // A key bound to the key processor was made there and can never leave it; a wrapped key
    // can be exported by the tool, and may have been imported.
    const bool bound = custody.kind == PrivateKeyCustody::Kind::bound;
    auto privateKey = shared(CKO_PRIVATE_KEY);
    privateKey.setBool(CKA_SIGN, can.sign);
    privateKey.setBool(CKA_DERIVE, can.derive);
    privateKey.setBool(CKA_DECRYPT, can.decrypt);
    privateKey.setBool(CKA_SIGN_RECOVER, false);
    privateKey.setBool(CKA_UNWRAP, false);
    privateKey.setBool(CKA_SENSITIVE, true);
    privateKey.setBool(CKA_EXTRACTABLE, false);
    privateKey.setBool(CKA_ALWAYS_SENSITIVE, bound);
    privateKey.setBool(CKA_NEVER_EXTRACTABLE, bound);
    privateKey.setBool(CKA_WRAP_WITH_TRUSTED, false);
    privateKey.setBool(CKA_ALWAYS_AUTHENTICATE, false);
    privateKey.setBool(CKA_LOCAL, bound);
    privateKey.set(attributeKeyProcessor, bytesOf(custody.inTpm ? "tpm" : "soft"));
    privateKey.setUlong(CKA_KEY_GEN_MECHANISM, !bound              ? CK_UNAVAILABLE_INFORMATION
                                               : keyType == CKK_EC ? CKM_EC_KEY_PAIR_GEN
                                                                   : CKM_RSA_PKCS_KEY_PAIR_GEN);
    for (const auto type : {CKA_VALUE, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2,
                            CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT}) {
        privateKey.setSensitive(type);
    }
    objects.push_back(keyObject(CKO_PRIVATE_KEY, item.objectID, std::move(privateKey), facts));
}

}  // namespace

bool TokenObject::allows(CK_ATTRIBUTE_TYPE usage) const {
    const Bytes* value = attributes.find(usage);
    return value != nullptr && value->size() == 1 && (*value)[0] == CK_TRUE;
}

std::shared_ptr<const card::IdentityKey> identityKeyOf(
    const platform::token_store::TokenItem& item) {
    const auto* keyItem = std::get_if<platform::token_store::KeyItem>(&item);
    if (keyItem == nullptr) return nullptr;
    auto key = card::identityKeyOf(*keyItem);
    if (!key) return nullptr;
    return std::make_shared<const card::IdentityKey>(std::move(*key));
}

PrivateKeyCustody custodyOf(const card::IdentityKey* key, const keys::StoredKeyMap& storedKeys) {
    if (key == nullptr) return {};
    const auto stored = storedKeys.find(key->publicKeyHash);
    if (stored == storedKeys.end()) return {};
    return {keys::protectionOf(stored->second).exportable ? PrivateKeyCustody::Kind::exportable
                                                          : PrivateKeyCustody::Kind::bound,
            keys::reachesTpm(stored->second)};
}

std::vector<TokenObject> itemObjects(const platform::token_store::TokenItem& item,
                                     const card::IdentityKey* key, const std::string* label,
                                     PrivateKeyCustody custody) {
    std::vector<TokenObject> objects;
    if (const auto* certificate = std::get_if<platform::token_store::CertificateItem>(&item)) {
        objects.push_back(certificateObject(*certificate, label));
    } else if (key != nullptr) {
        appendKeyObjects(std::get<platform::token_store::KeyItem>(item), *key, label, custody,
                         objects);
    }
    return objects;
}

// The key item's label, else the certificate item's: cards written before certificate replacement
// kept the label have certificate items without one. Sorting views of the ids groups the items
// without copying an id or a label.
std::vector<const std::string*> identityLabels(
    std::span<const platform::token_store::TokenItem* const> items) {
    std::vector<std::pair<ByteView, std::size_t>> byID;
    byID.reserve(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) byID.emplace_back(objectIDOf(*items[i]), i);
    std::ranges::sort(byID, [](const auto& a, const auto& b) {
        const auto order = compareIDs(a.first, b.first);
        return order != 0 ? order < 0 : a.second < b.second;
    });

    std::vector<const std::string*> labels(items.size(), nullptr);
    for (auto group = byID.begin(); group != byID.end();) {
        const auto end = std::find_if(group, byID.end(), [&](const auto& entry) {
            return compareIDs(entry.first, group->first) != 0;
        });
        const std::string* chosen = nullptr;
        for (auto entry = group; entry != end; ++entry) {
            const auto& item = *items[entry->second];
            const bool isKey = std::holds_alternative<platform::token_store::KeyItem>(item);
            const auto& label = std::visit(
                [](const auto& fields) -> const auto& { return fields.label; }, item);
            if (!label || label->empty() || (chosen != nullptr && !isKey)) continue;
            chosen = &*label;
        }
        for (auto entry = group; entry != end; ++entry) labels[entry->second] = chosen;
        group = end;
    }
    return labels;
}

ByteView objectIDOf(const platform::token_store::TokenItem& item) {
    return std::visit([](const auto& fields) { return ByteView(fields.objectID); }, item);
}

std::strong_ordering compareIDs(ByteView a, ByteView b) {
    return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
}

}  // namespace keyloft::pkcs11
