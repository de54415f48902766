#include "platform/token_store/item_rows.hpp"

#include <algorithm>

#include "platform/token_store/sqlite_connection.hpp"

namespace keyloft::platform::token_store {
namespace {

enum Column { kind, objectID, label, certificate, canSign, canDecrypt, canKeyExchange };

std::optional<bool> flagAt(const sqlite::Statement& row, int column) {
    if (row.isNull(column)) return std::nullopt;
    return row.integer(column) != 0;
}

std::optional<std::string> textAt(const sqlite::Statement& row, int column) {
    if (row.isNull(column)) return std::nullopt;
    return row.text(column);
}

bool isCertificateRow(const sqlite::Statement& row) {
    return row.textView(kind) == "certificate";
}

bool sameBytes(ByteView a, const Bytes& b) {
    return std::ranges::equal(a, b);
}

template <typename Item>
bool sameCommonFields(const sqlite::Statement& row, const Item& item) {
    const bool sameLabel =
        row.isNull(label) ? !item.label : item.label && row.textView(label) == *item.label;
    return sameLabel && sameBytes(row.blobView(objectID), item.objectID) &&
           sameBytes(row.blobView(certificate), item.certificate);
}

}  // namespace

TokenItem itemOfRow(const sqlite::Statement& row) {
    if (isCertificateRow(row)) {
        return CertificateItem{row.blob(objectID), textAt(row, label), row.blob(certificate)};
    }
    return KeyItem{.objectID = row.blob(objectID),
                   .label = textAt(row, label),
                   .certificate = row.blob(certificate),
                   .canSign = flagAt(row, canSign),
                   .canDecrypt = flagAt(row, canDecrypt),
                   .canPerformKeyExchange = flagAt(row, canKeyExchange)};
}

bool rowHoldsItem(const sqlite::Statement& row, const TokenItem& item) {
    if (isCertificateRow(row)) {
        const auto* held = std::get_if<CertificateItem>(&item);
        return held != nullptr && sameCommonFields(row, *held);
    }
    const auto* held = std::get_if<KeyItem>(&item);
    return held != nullptr && sameCommonFields(row, *held) &&
           flagAt(row, canSign) == held->canSign && flagAt(row, canDecrypt) == held->canDecrypt &&
           flagAt(row, canKeyExchange) == held->canPerformKeyExchange;
}

}  // namespace keyloft::platform::token_store
