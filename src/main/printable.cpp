#include "main/log.h"

namespace rvk {

printable::printable(std::string_view peers)
{
    static constexpr char digits[] = "0123456789abcdef";
    size_t used = 0;
    for (const char c : peers) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = byte >= 0x20 && byte != 0x7F;
        if (used + (plain ? 1 : 4) >= sizeof text) { break; }
        if (plain) {
            text[used++] = c;
            continue;
        }
        for (const char shown : {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]}) { text[used++] = shown; }
    }
    text[used] = '\0';
}

} // namespace rvk
