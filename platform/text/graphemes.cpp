#include "platform/text/graphemes.hpp"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <memory>

namespace keyloft::platform::text {

std::size_t userPerceivedLength(std::string_view utf8) {
    const auto text = icu::UnicodeString::fromUTF8(
        icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
    UErrorCode status = U_ZERO_ERROR;
    static const std::unique_ptr<icu::BreakIterator> prototype(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (!prototype) return static_cast<std::size_t>(text.countChar32());
    const std::unique_ptr<icu::BreakIterator> iterator(prototype->clone());
    iterator->setText(text);
    std::size_t count = 0;
    for (auto boundary = iterator->next(); boundary != icu::BreakIterator::DONE;
         boundary = iterator->next()) {
        ++count;
    }
    return count;
}

}  // namespace keyloft::platform::text
