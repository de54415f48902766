#include "platform/key_processor/pam_presence_gate.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/key_processor/soft_key_processor.hpp"
#include "support/temporary_folder.hpp"
#include "unit/platform_key_processor/session_child.hpp"

namespace keyloft::platform::key_processor {
namespace {

using crypto::SecretBytes;
using key_service::SignatureAlgorithm;

using keyloft::testing::runInSession;

constexpr std::uint32_t biometryWord = accessControlPrivateKeyUsage | accessControlBiometryAny;

// A PAM configuration folder of the test's own, holding the service "keyloft".
class PamConfiguration {
  public:
    void authenticateWith(const std::string& authLine) const {
        std::ofstream(path() / "keyloft")
            << "auth required " << authLine << "\naccount required pam_permit.so\n";
    }
    // pam_exec asks for the password through the conversation and hands it to
    // cmp, which accepts exactly the expected bytes.
    void requirePassword(const std::string& password) const {
        const auto expected = path() / "expected";
        std::ofstream(expected, std::ios::binary) << password;
        authenticateWith("pam_exec.so expose_authtok quiet /usr/bin/cmp -s - " + expected.string());
    }
    const std::filesystem::path& path() const { return folder_.path(); }

  private:
    keyloft::testing::TemporaryFolder folder_;
};

TEST(PamPresenceGate, FollowsWhatPamAnswers) {
    for (const auto& [module, accepted] :
         {std::pair{"pam_permit.so", true}, std::pair{"pam_deny.so", false}}) {
        const PamConfiguration configuration;
        configuration.authenticateWith(module);
        PamPresenceGate gate(configuration.path());
        const auto outcome = runInSession([&] { gate.confirm(); }, true);
        EXPECT_EQ(outcome.succeeded, accepted) << module << ": " << outcome.error;
        if (!accepted) {
            EXPECT_EQ(outcome.error.rfind("User presence could not be confirmed: ", 0), 0U)
                << outcome.error;
        }
    }
}

TEST(PamPresenceGate, RefusesWithoutControllingTerminalOrService) {
    const PamConfiguration configuration;
    configuration.authenticateWith("pam_permit.so");
    PamPresenceGate gate(configuration.path());
    const auto outcome = runInSession([&] { gate.confirm(); }, false);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.error, "User presence could not be confirmed: no controlling terminal");

    const keyloft::testing::TemporaryFolder unconfigured;
    PamPresenceGate unconfiguredGate(unconfigured.path());
    EXPECT_FALSE(runInSession([&] { unconfiguredGate.confirm(); }, true).succeeded);
}

TEST(PamPresenceGate, PasswordPromptIsAnsweredWithoutEcho) {
    const PamConfiguration configuration;
    configuration.requirePassword("open sesame");
    PamPresenceGate gate(configuration.path());
    for (const auto& [typed, accepted] :
         {std::pair{"open sesame", true}, std::pair{"open sesame!", false}, std::pair{"", false}}) {
        const auto outcome =
            runInSession([&] { gate.confirm(); }, true, "Password: ", std::string(typed) + "\n");
        EXPECT_EQ(outcome.succeeded, accepted) << typed << ": " << outcome.error;
        EXPECT_NE(outcome.screen.find("Password: "), std::string::npos) << outcome.screen;
        EXPECT_EQ(outcome.screen.find("sesame"), std::string::npos) << outcome.screen;
    }
}

TEST(PamPresenceGate, BiometryKeyIsUsableOnlyAfterPamAccepts) {
    const PamConfiguration configuration;
    PamPresenceGate gate(configuration.path());
    const keyloft::testing::TemporaryFolder folder;
    SoftKeyProcessor processor(folder.path() / "bastion.key", gate);
    const Bytes identifier = processor.createKey(256, biometryWord)->objectIdentifier();
    const auto sign = [&] {
        processor.rebuildKey(identifier, nullptr)
            ->sign(SignatureAlgorithm::ecdsaSignatureMessageX962SHA384, bytesOf("m"));
    };

    configuration.authenticateWith("pam_deny.so");
    EXPECT_FALSE(runInSession(sign, true).succeeded);
    configuration.authenticateWith("pam_permit.so");
    const auto outcome = runInSession(sign, true);
    EXPECT_TRUE(outcome.succeeded) << outcome.error;
    EXPECT_NE(outcome.screen.find("Confirm your presence"), std::string::npos);
}

}  // namespace
}  // namespace keyloft::platform::key_processor
