#pragma once

#include "base/error.hpp"
#include "platform/key_processor/key_processor.hpp"

namespace keyloft::testing {

// A presence gate that counts how often it is asked, and refuses when told to.
class CountingGate : public platform::key_processor::PresenceGate {
  public:
    void confirm() override {
        ++asked;
        if (!accept) throw PlatformError("refused");
    }
    int asked = 0;
    bool accept = true;
};

}  // namespace keyloft::testing
