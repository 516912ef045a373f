#include "main/log.h"

namespace rvk {

printable::printable(std::string_view peers)
{
    size_t used = 0;
    for (const char c : peers) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = byte >= 0x20 && byte != 0x7F;
        const size_t wanted = plain ? 1 : 4;
        if (used + wanted >= sizeof text) { break; }
        plain ? text[used] = c : snprintf(text + used, wanted + 1, "\\x%02x", byte);
        used += wanted;
    }
    text[used] = '\0';
}

} // namespace rvk
