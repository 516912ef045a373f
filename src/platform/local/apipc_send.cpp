// Sends one message at once, or tells why not: nobody waits here for a peer that does not read.
#include "platform/local/endpoint.h"

#include "platform/platform.h"

int apipc_send(uint32_t destination, const void* message, uint32_t bytes)
{
    const std::span<const uint8_t> whole{static_cast<const uint8_t*>(message), bytes};
    return -rvk::local::send_datagram(rvk::local::process_endpoint.load(), destination, whole);
}
