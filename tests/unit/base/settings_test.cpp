#include "base/settings.hpp"

#include <gtest/gtest.h>

namespace keyloft {
namespace {

using std::chrono::seconds;

TEST(Settings, FilesAreReadLineByLine) {
    const Settings defaults;
    EXPECT_EQ(applySettings(defaults, "", false), defaults);
    EXPECT_EQ(applySettings(defaults, "# nothing\n\n   \t\n", false), defaults);
    EXPECT_EQ(applySettings(defaults, "require_tpm=yes\r\n  presence_grace_seconds =  0  ", false),
              (Settings{true, seconds(0)}));
    EXPECT_EQ(applySettings(defaults, "presence_grace_seconds = 3600\n", false).presenceGrace,
              seconds(3600));
}

TEST(Settings, AMalformedLineIsNamed) {
    const std::pair<const char*, SettingsError> rows[] = {
        {"require_tpm", {1, "expected 'key = value'"}},
        {"# fine\nrequire_tpm = true", {2, "require_tpm is 'yes' or 'no'"}},
        {"\n\nrequire_tpms = yes", {3, "unknown setting 'require_tpms'"}},
        {"presence_grace_seconds = -1",
         {1, "presence_grace_seconds is a whole number from 0 to 3600"}},
        {"presence_grace_seconds = 3601",
         {1, "presence_grace_seconds is a whole number from 0 to 3600"}},
        {"presence_grace_seconds = 5s",
         {1, "presence_grace_seconds is a whole number from 0 to 3600"}},
        {"presence_grace_seconds =",
         {1, "presence_grace_seconds is a whole number from 0 to 3600"}},
    };
    for (const auto& [text, expected] : rows) {
        try {
            (void)applySettings({}, text, false);
            ADD_FAILURE() << text;
        } catch (const SettingsError& error) {
            EXPECT_EQ(error.line, expected.line) << text;
            EXPECT_EQ(error.reason, expected.reason) << text;
        }
    }
}

TEST(Settings, TheUsersFileOnlyTightens) {
    const Settings administrators{true, seconds(5)};
    EXPECT_EQ(applySettings(administrators, "require_tpm = no\npresence_grace_seconds = 60", true),
              administrators);
    EXPECT_EQ(applySettings({}, "require_tpm = yes\npresence_grace_seconds = 1", true),
              (Settings{true, seconds(1)}));
    // Still checked when ignored.
    EXPECT_THROW((void)applySettings(administrators, "require_tpm = maybe", true), SettingsError);
}

}  // namespace
}  // namespace keyloft
