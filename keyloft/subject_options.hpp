#pragma once

#include <chrono>
#include <optional>

#include "keyloft/keyloft_app.hpp"
#include "x509/name.hpp"

// The subjects the options name.
namespace keyloft {

// A request's subject: each option given a non-empty text.
x509::Name requestSubject(const OptionFields& fields);

// A new identity's certificate: its subject, and its lifetime when the options give one.
struct CertificateSubject {
    x509::Name name;
    std::optional<std::chrono::seconds> lifetime;
};
// The options fill the parts in the order CN, E, OU, O, L, ST, C: the common name always, the
// others when not empty. Two characters in them keep the meaning they have always had for
// create-identity, which read its options as one "CN;E;OU;O;L;ST;C|days" text: ';' starts the next
// part (more parts than seven leave the subject empty), and '|' ends the subject, the text after
// it up to the next '|' giving the certificate's days. Throws the validity message for days that
// are not a whole number.
CertificateSubject certificateSubject(const OptionFields& fields);

}  // namespace keyloft
