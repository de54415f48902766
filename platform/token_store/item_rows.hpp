#pragma once

#include <string_view>

#include "platform/token_store/token_items.hpp"

namespace keyloft::platform::token_store {

namespace sqlite {
class Statement;
}

// The columns of the items table an item is made of, in the order the functions below read them
// from a row: a query selects them first.
inline constexpr std::string_view itemColumns =
    "kind, object_id, label, certificate, can_sign, can_decrypt, can_key_exchange";
inline constexpr int itemColumnCount = 7;

// The item of the current row.
TokenItem itemOfRow(const sqlite::Statement& row);

// True when the current row holds exactly the item; compares in place, copying nothing.
bool rowHoldsItem(const sqlite::Statement& row, const TokenItem& item);

}  // namespace keyloft::platform::token_store
