// A test or a tool replaces one call by defining it, and keeps the others. That this program links is half of the test.
#include "base/fd.h"
#include "platform/endpoint_folder.h"
#include "platform/local/endpoint.h"
#include "platform/platform.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string last_line;
uint32_t last_destination;

} // namespace

int my_system(const char* line)
{
    last_line = line;
    return 0;
}

int apipc_send(uint32_t destination, const void*, uint32_t)
{
    last_destination = destination;
    return 0;
}

TEST(Replace, OwnDefinitionsAreCalledAndTheOthersStay)
{
    const rvk::endpoint_folder folder;
    EXPECT_EQ(my_system("reboot -f"), 0);
    EXPECT_EQ(last_line, "reboot -f");
    EXPECT_EQ(apipc_send(0x010A3C00, nullptr, 0), 0);
    EXPECT_EQ(last_destination, 0x010A3C00u);

    EXPECT_EQ(apipc_init(0x010A3B00, 0), 0);
    EXPECT_TRUE(rvk::local::endpoint_alive(0x010A3B00));
    FILE* stream = my_popen("echo real", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fgetc(stream), 'r');
    EXPECT_EQ(fclose(stream), 0);
    rvk::unique_fd{rvk::local::process_endpoint.exchange(-1)};
}
