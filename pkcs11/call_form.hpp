#pragma once

#include "pkcs11/cryptoki.hpp"

namespace keyloft::pkcs11 {

// Which form of calls an operation goes on in: one call with all the data (C_Sign, C_Digest,
// C_Verify), or parts and a final call (C_SignUpdate ... C_SignFinal). A length query of the one
// call keeps the operation open; mixing the forms then would silently work on no data or on the
// data twice, so the other form answers CKR_OPERATION_ACTIVE.
class CallForm {
  public:
    void onePart() { take(Form::onePart); }
    void inParts() { take(Form::inParts); }

  private:
    enum class Form { open, onePart, inParts };
    void take(Form form) {
        if (form_ != Form::open && form_ != form) throw CryptokiError(CKR_OPERATION_ACTIVE);
        form_ = form;
    }
    Form form_ = Form::open;
};

}  // namespace keyloft::pkcs11
