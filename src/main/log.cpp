// Of the log what all sinks share.
#include "main/log.h"

#include <algorithm>
#include <cstdarg>

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

bool console_print(int fd, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return console_write(fd, text, std::min(static_cast<size_t>(std::max(length, 0)), sizeof text - 1));
}

} // namespace rvk
