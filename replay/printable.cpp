#include "printable.h"

namespace replay
{

std::string printable(std::string_view text, std::string_view kept)
{
    std::string shown;
    shown.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        // The second set of control characters is two bytes in UTF-8.
        const bool second_set = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        const bool control = (c < ' ' || c == 0x7F) && kept.find(text[i]) == std::string_view::npos;
        shown += control || second_set ? '?' : text[i];
        i += second_set ? 1 : 0;
    }
    return shown;
}

} // namespace replay
