// The board's number, from the environment: there is no backplane to ask on an ordinary machine. Asked for with every
// message, so a wrong value is logged once.
#include "main/log.h"
#include "platform/platform.h"

#include <atomic>
#include <cstdlib>

namespace {

constexpr int default_board = 1;
constexpr unsigned long board_max = 255;
std::atomic<bool> refusal_logged{false};

// Decimal or 0x…, digits only; -1 for anything else. A leading zero does not make a number octal.
int board_in(const char* text)
{
    const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* digits = hex ? text + 2 : text;
    const bool starts_with_digit = (*digits >= '0' && *digits <= '9') || (hex && ((*digits | 0x20) >= 'a'));
    char* end = nullptr;
    const unsigned long value = strtoul(digits, &end, hex ? 16 : 10);
    return starts_with_digit && *end == '\0' && value <= board_max ? static_cast<int>(value) : -1;
}

} // namespace

int apcard_bit_self(void)
{
    const char* text = getenv("APCARD_SELF");
    if (text == nullptr || *text == '\0') { return default_board; }
    const int board = board_in(text);
    if (board >= 0) { return board; }
    if (!refusal_logged.exchange(true)) {
        rvk::log_print(LOG_HERE, "APCARD_SELF \"%s\" is not a number from 0 to %lu; board %d is taken\n", text,
                       board_max, default_board);
    }
    return default_board;
}
