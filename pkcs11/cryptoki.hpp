#pragma once

// The PKCS#11 v2.40 types and constants, with the standard's names.
#include <p11-kit/pkcs11.h>

#include <stdexcept>

namespace keyloft::pkcs11 {

// Ends an entry point with the return value the standard assigns to the failure.
class CryptokiError : public std::exception {
  public:
    explicit CryptokiError(CK_RV rv) : rv_(rv) {}
    CK_RV rv() const noexcept { return rv_; }
    const char* what() const noexcept override { return "PKCS#11 failure"; }

  private:
    CK_RV rv_;
};

}  // namespace keyloft::pkcs11
