#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>

#include "base/error.hpp"
#include "card/identity_key.hpp"
#include "card/identity_lookup.hpp"
#include "keyloft/identity_table.hpp"
#include "keyloft/keyloft_app.hpp"
#include "keys/key_access.hpp"
#include "keys/stored_key_codec.hpp"
#include "platform/text/date_format.hpp"
#include "pubkey/fingerprint.hpp"
#include "pubkey/key_type_description.hpp"

namespace keyloft {
namespace {

struct KeyRow {
    Bytes hash;
    std::string hashStr;
    std::string type;
    std::string prot;
    std::string label;
};

struct CertificateDetails {
    std::string commonName;
    std::string email;
    std::string validTo;
    std::string isValid;
};

CertificateDetails detailsOf(const x509::CertificateView& certificate,
                             const platform::text::ShortDateTimeFormatter& formatter,
                             std::chrono::system_clock::time_point now) {
    CertificateDetails details;
    details.commonName = certificate.commonName().value_or("");
    const auto emails = certificate.emailAddresses();
    if (!emails.empty()) details.email = emails.front();
    if (const auto notAfter = certificate.notAfter()) details.validTo = formatter.format(*notAfter);
    details.isValid = certificate.isValidAt(now) ? "YES" : "NO";
    return details;
}

}  // namespace

void KeyloftApp::listIdentities() {
    if (!hashType) throw KeyloftError::generic("invalid hash type");
    if (!hashEncoding) throw KeyloftError::generic("invalid hash encoding");

    keys::StoredKeyMap records;
    platform::token_store::TokenItems items;
    tokenConfiguration.readTransaction([&] {
        records = keys::decodeStoredKeys(tokenConfiguration.configurationData());
        items = tokenConfiguration.items();
    });
    const platform::text::ShortDateTimeFormatter formatter;
    const auto now = std::chrono::system_clock::now();

    std::vector<KeyRow> rows;
    std::map<Bytes, CertificateDetails> certificates;
    for (const auto& item : items) {
        if (const auto* certificate = std::get_if<platform::token_store::CertificateItem>(&item)) {
            // One reading serves the hash and the details.
            const auto parsed = x509::readCertificate(certificate->certificate);
            if (!parsed) throw KeyloftError::generic("Failed to parse certificate from data");
            certificates[card::publicKeyHashOf(*parsed)] = detailsOf(*parsed, formatter, now);
            continue;
        }
        const auto& keyItem = std::get<platform::token_store::KeyItem>(item);
        // A certificate that gives no key leaves the key empty: keyHash then names what is missing.
        auto key = card::identityKeyOf(keyItem).value_or(card::IdentityKey{});
        KeyRow row;
        row.hash = std::move(key.publicKeyHash);
        // A key whose record is missing still gets a row; its protection is then unknown.
        const auto record = records.find(row.hash);
        bool exportable = true;
        if (record != records.end()) {
            const auto protection = keys::protectionOf(record->second);
            exportable = protection.exportable;
            row.prot =
                protection.biometryProtection == keys::BiometryProtection::on ? "bio" : "none";
        }
        row.type = pubkey::keyTypeDescription(key.publicKey, exportable);
        row.hashStr = pubkey::fingerprint(pubkey::keyHash(key.publicKey, *hashType), *hashType,
                                          *hashEncoding);
        row.label = keyItem.label.value_or("");
        rows.push_back(std::move(row));
    }

    // Labels compare by code point, which for UTF-8 is byte order.
    std::ranges::stable_sort(rows, {}, &KeyRow::label);

    std::vector<std::vector<std::string>> table;
    table.reserve(rows.size() + 1);
    table.push_back({"Key Type", "Public Key Hash", "Prot", "Label", "Common Name", "Email Address",
                     "Valid To", "Valid"});
    for (auto& row : rows) {
        const auto found = certificates.find(row.hash);
        const auto details = found != certificates.end() ? found->second : CertificateDetails{};
        table.push_back({std::move(row.type), std::move(row.hashStr), std::move(row.prot),
                         std::move(row.label), details.commonName, details.email, details.validTo,
                         details.isValid});
    }
    std::cout << renderTable(std::move(table)) << std::flush;
}

}  // namespace keyloft
