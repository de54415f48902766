#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "base/error.hpp"
#include "platform/key_processor/key_processor.hpp"
#include "platform/key_processor/object_identifier.hpp"
#include "platform/key_processor/pam_presence_gate.hpp"
#include "platform/key_processor/polkit_presence_gate.hpp"
#include "platform/key_processor/soft_key_processor.hpp"
#include "platform/key_processor/tpm_key_processor.hpp"
#include "platform/os/paths.hpp"
#include "platform/os/settings_files.hpp"

namespace keyloft::platform::key_processor {
namespace {

constexpr const char* kernelResourceManager = "/dev/tpmrm0";

std::optional<std::filesystem::path> pamConfigurationFolder() {
#ifdef KEYLOFT_PAM_CONFDIR
    return std::filesystem::path(KEYLOFT_PAM_CONFDIR);
#else
    return std::nullopt;
#endif
}

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return value;
}

PresenceGate& presenceGate() {
    static PamPresenceGate terminal(pamConfigurationFolder());
    static PolkitPresenceGate desktop;
    static TerminalOrDesktopPresenceGate gate(terminal, desktop);
    return gate;
}

SoftKeyProcessor& softProcessor() {
    static SoftKeyProcessor processor(os::dataFolder() / os::deviceKeyFileName, presenceGate());
    return processor;
}

// Whether tpm2-abrmd owns its name on the system bus. Asked through GIO, which the tabrmd TCTI
// loads anyway, and only when that TCTI is installed: the TCTI itself prints glib's complaints on
// stderr when the bus or the daemon is missing, while GIO hands them back as errors.
bool tabrmdRunning() {
    if (dlopen("libtss2-tcti-tabrmd.so.0", RTLD_LAZY | RTLD_LOCAL) == nullptr) return false;
    // Neither is closed again: glib does not support being unloaded.
    void* gio = dlopen("libgio-2.0.so.0", RTLD_NOW | RTLD_LOCAL);
    if (gio == nullptr) return false;
    using BusGet = void* (*)(int, void*, void**);
    using VariantNew = void* (*)(const char*, ...);
    using Call = void* (*)(void*, const char*, const char*, const char*, const char*, void*,
                           const void*, int, int, void*, void**);
    using VariantGet = void (*)(void*, const char*, ...);
    using Unref = void (*)(void*);
    const auto busGet = reinterpret_cast<BusGet>(dlsym(gio, "g_bus_get_sync"));
    const auto variantNew = reinterpret_cast<VariantNew>(dlsym(gio, "g_variant_new"));
    const auto call = reinterpret_cast<Call>(dlsym(gio, "g_dbus_connection_call_sync"));
    const auto variantGet = reinterpret_cast<VariantGet>(dlsym(gio, "g_variant_get"));
    const auto variantUnref = reinterpret_cast<Unref>(dlsym(gio, "g_variant_unref"));
    const auto objectUnref = reinterpret_cast<Unref>(dlsym(gio, "g_object_unref"));
    const auto errorFree = reinterpret_cast<Unref>(dlsym(gio, "g_error_free"));
    if (!busGet || !variantNew || !call || !variantGet || !variantUnref || !objectUnref ||
        !errorFree) {
        return false;
    }
    // Each reference is handed back to GIO however this ends.
    using Reference = std::unique_ptr<void, Unref>;
    constexpr int systemBus = 1;  // G_BUS_TYPE_SYSTEM
    void* error = nullptr;
    const Reference bus(busGet(systemBus, nullptr, &error), objectUnref);
    const Reference busError(std::exchange(error, nullptr), errorFree);
    if (!bus) return false;
    const Reference reply(
        call(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
             "NameHasOwner", variantNew("(s)", "com.intel.tss2.Tabrmd"), "(b)", 0, 1000, nullptr,
             &error),
        variantUnref);
    const Reference callError(error, errorFree);
    int owned = 0;
    if (reply) variantGet(reply.get(), "(b)", &owned);
    return owned != 0;
}

// The TPM that KEYLOFT_TCTI names, else the kernel's resource manager when this machine has one,
// else tpm2-abrmd when it runs on the system bus. The loader's own default is not used: on a
// machine without a TPM it tries every TCTI it knows, a local simulator port among them, and some
// of them print on stderr.
std::optional<std::string> tctiConfiguration() {
    if (auto named = environment("KEYLOFT_TCTI")) return named;
    if (access(kernelResourceManager, F_OK) == 0)
        return std::string("device:") + kernelResourceManager;
    if (tabrmdRunning()) return std::string("tabrmd");
    return std::nullopt;
}

// Nothing when this machine names no TPM.
TpmKeyProcessor* tpmProcessor() {
    static const auto tcti = tctiConfiguration();
    if (!tcti) return nullptr;
    static TpmKeyProcessor processor(*tcti, presenceGate());
    return &processor;
}

}  // namespace

void checkNewKeyRequest(int sizeInBits, std::uint32_t accessControl) {
    if (sizeInBits != 256 && sizeInBits != 384 && !isRsaKeySize(sizeInBits)) {
        throw PlatformError("Key processor: unsupported key size " + std::to_string(sizeInBits));
    }
    if (!isSupportedAccessControl(accessControl)) {
        throw PlatformError("Key processor: unsupported access control " +
                            std::to_string(accessControl));
    }
}

KeyProcessor& defaultKeyProcessor(bool cardHoldsTpmKeys) {
    const auto forced = environment("KEYLOFT_KEY_PROCESSOR");
    // The environment overrides the user's settings, never the administrator's.
    if (forced == "soft") {
        if (os::readAdministratorSettings().requireTpm) {
            throw PlatformError(
                "Key processor: KEYLOFT_KEY_PROCESSOR=soft is refused: the administrator's "
                "settings require the TPM (require_tpm = yes)");
        }
        return softProcessor();
    }
    if (forced && forced != "tpm") {
        throw PlatformError("Key processor: KEYLOFT_KEY_PROCESSOR is '" + *forced +
                            "'; it may be 'soft' or 'tpm'");
    }
    const bool settingsRequire = !forced && os::readSettings().requireTpm;
    // Asking for a TPM by name or in the settings, or holding keys in one, makes a missing TPM
    // an error.
    const bool tpmRequired =
        forced || cardHoldsTpmKeys || environment("KEYLOFT_TCTI") || settingsRequire;
    // The reason is a whole message of this processor's.
    const auto why = [&](const std::string& reason) {
        if (settingsRequire && !cardHoldsTpmKeys) {
            return PlatformError(reason +
                                 "; the settings require the TPM for new keys (require_tpm = yes)");
        }
        return PlatformError(
            reason + (cardHoldsTpmKeys ? "; this card holds TPM keys, so new keys are not made in "
                                         "software unless KEYLOFT_KEY_PROCESSOR=soft says so"
                                       : ""));
    };
    auto* tpm = tpmProcessor();
    if (!tpm) {
        if (tpmRequired)
            throw why(
                "Key processor: no TPM found (no /dev/tpmrm0, no tpm2-abrmd on the system bus, and "
                "KEYLOFT_TCTI "
                "is unset)");
        return softProcessor();
    }
    try {
        tpm->connect();
    } catch (const PlatformError& error) {
        if (tpmRequired) throw why(error.what());
        return softProcessor();
    }
    return *tpm;
}

std::string describeDefaultKeyProcessor() {
    try {
        return defaultKeyProcessor(false).description();
    } catch (const PlatformError&) {
        return "no TPM";  // a TPM is required and none answers
    }
}

bool isTpmKey(ByteView objectIdentifier) {
    const auto header = ObjectIdentifierHeader::decode(objectIdentifier);
    return header && header->backEnd == tpmBackEnd;
}

KeyProcessor& keyProcessorFor(ByteView objectIdentifier) {
    const auto header = ObjectIdentifierHeader::decode(objectIdentifier);
    if (header && header->backEnd == softBackEnd) return softProcessor();
    if (header && header->backEnd == tpmBackEnd) {
        if (auto* tpm = tpmProcessor()) return *tpm;
        throw PlatformError(
            "Key processor: the key is in a TPM, and no TPM is found here (no /dev/tpmrm0, no "
            "tpm2-abrmd on the system bus, and KEYLOFT_TCTI is unset)");
    }
    throw PlatformError("Key processor: no key processor on this machine knows this key");
}

}  // namespace keyloft::platform::key_processor
