#pragma once

#include <filesystem>
#include <random>
#include <string>

namespace keyloft::testing {

// A fresh folder under the system's temporary folder, removed with everything in it.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::random_device random;
        path_ =
            std::filesystem::temp_directory_path() / ("keyloft-test-" + std::to_string(random()));
        std::filesystem::create_directories(path_);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace keyloft::testing
