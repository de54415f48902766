#include "base/error.hpp"
#include "platform/key_processor/key_processor.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/pam_presence_gate.hpp"
#include "platform/key_processor/soft_key_processor.hpp"
#include "platform/os/paths.hpp"

namespace keyloft::platform::key_processor {
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
    static SoftKeyProcessor processor(os::dataFolder() / "bastion.key", gate);
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

}  // namespace keyloft::platform::key_processor
