#include "link/bench_daemon.h"

#include "ap_msg/endpoint.h"
#include "ap_msg/file_service.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "platform/local/endpoint.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstdlib>

namespace rvk {
namespace {

constexpr char directory[] = "/run/rvk-bench/apipc"; // gone with the bench
constexpr int board_processor = 3;                   // the daemon's own choice

void start_daemon_threads()
{
    static const bool started = [] {
        EXPECT_EQ(WexApRecvTaskCreate(board_processor), 0);
        EXPECT_EQ(WexApFileTaskCreate(board_processor), 0);
        return true;
    }();
    ASSERT_TRUE(started && soon([] { return local::endpoint_alive(own_identity()); }));
}

} // namespace

void DaemonTest::SetUp()
{
    ASSERT_EQ(setenv("APIPC_DIR", directory, 1), 0); // before there is a second thread
    LinkTest::SetUp();
    start_daemon_threads();
}

void open_requester(requester& client)
{
    ASSERT_EQ(client.open_free(static_cast<uint8_t>(apcard_bit_self())), endpoint_status::ok) << client.error();
}

bool send_command(requester& client, const command_fields& fields, std::span<const uint8_t> payload)
{
    std::vector<uint8_t> m(message_head_bytes + payload.size());
    store_le32(m.data() + message::aptid, client.identity());
    store_le16(m.data() + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(m.data() + message::data_len, static_cast<uint32_t>(data_head_bytes + payload.size()));
    m[message::id] = 254;
    m[message::code] = fields.code;
    m[message::slot] = fields.slot;
    store_le32(m.data() + message::addr, fields.addr);
    store_le16(m.data() + message::len, fields.len);
    std::copy(payload.begin(), payload.end(), m.begin() + message::payload);
    return client.send(own_identity(), m, std::chrono::seconds(10)) == endpoint_status::ok;
}

} // namespace rvk
