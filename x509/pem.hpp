#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.hpp"

namespace keyloft::x509 {

// The DER bytes of a PEM certificate text: lines split at every line break (LF, CR, CR LF, VT,
// FF, NEL, U+2028, U+2029), empty lines and the BEGIN/END CERTIFICATE lines dropped, the rest
// joined and decoded as strict base64. Nothing when the joined text is not base64.
std::optional<Bytes> certificateFromPem(std::string_view text);

// "-----BEGIN <label>-----", the base64 in lines of 64 characters, "-----END <label>-----", each
// line ended by LF.
std::string pemText(std::string_view label, ByteView der);

}  // namespace keyloft::x509
