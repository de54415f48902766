#pragma once

#include "platform/key_service/rsa_parameters.hpp"

struct evp_pkey_ctx_st;

namespace keyloft::platform::key_service {

// Sets RSA-OAEP with the parameters on a context already started for encryption or decryption;
// false when OpenSSL refuses one of them. The label is copied for OpenSSL, which owns it then.
bool setOaepPadding(evp_pkey_ctx_st* context, const RsaOaepParameters& parameters);

}  // namespace keyloft::platform::key_service
