#pragma once

#include <optional>

#include "base/bytes.hpp"

namespace keyloft::x509 {

// Fields of a DER certificate as applications look them up, each the DER of the whole field.
struct CertificateFields {
    Bytes serialNumber;  // the INTEGER
    Bytes issuer;        // the Name
    Bytes subject;       // the Name
    Bytes subjectPublicKeyInfo;
};

// Nothing when the bytes are not a DER certificate.
std::optional<CertificateFields> certificateFields(ByteView certificate);

}  // namespace keyloft::x509
