#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace keyloft::platform::text {

// The instant in the user's locale (LC_ALL, LC_TIME, LANG) and local time zone, short date and
// short time styles, e.g. "1/2/26, 3:04 PM" for United States English.
class ShortDateTimeFormatter {
  public:
    ShortDateTimeFormatter();
    ShortDateTimeFormatter(const ShortDateTimeFormatter&) = delete;
    ShortDateTimeFormatter& operator=(const ShortDateTimeFormatter&) = delete;
    ~ShortDateTimeFormatter();

    std::string format(std::chrono::sys_seconds instant) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace keyloft::platform::text
