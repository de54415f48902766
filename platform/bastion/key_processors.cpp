#include "keyloft/error.hpp"
#include "platform/bastion/key_processor.hpp"
#include "platform/bastion/object_identifier.hpp"
#include "platform/bastion/pam_presence_gate.hpp"
#include "platform/bastion/soft_key_processor.hpp"
#include "platform/system/paths.hpp"

namespace keyloft::platform {
namespace {

std::optional<std::filesystem::path> pamConfigurationFolder() {
#ifdef KEYLOFT_PAM_CONFDIR
    return std::filesystem::path(KEYLOFT_PAM_CONFDIR);
#else
    return std::nullopt;
#endif
}

SoftKeyProcessor& softProcessor() {
    static PamPresenceGate gate(pamConfigurationFolder());
    static SoftKeyProcessor processor(dataFolder() / "bastion.key", gate);
    return processor;
}

}  // namespace

KeyProcessor& defaultKeyProcessor() {
    return softProcessor();
}

KeyProcessor& keyProcessorFor(ByteView objectIdentifier) {
    const auto header = ObjectIdentifierHeader::decode(objectIdentifier);
    if (header && header->backEnd == softBackEnd) return softProcessor();
    throw PlatformError("Key processor: no key processor on this machine knows this key");
}

}  // namespace keyloft::platform
