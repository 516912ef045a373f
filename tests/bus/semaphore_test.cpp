// Several processes on one link, one that dies, and semaphores that go away or cannot be had.
#include "base/pause.h"
#include "bus/bus_bench.h"
#include "eth_raw/bus_semaphore.h"
#include "support/log_capture.h"

#include <csignal>
#include <fstream>
#include <linux/capability.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

class Semaphore : public BusTest {
protected:
    int32_t write() { return Write_FPGA_Bus_Block(&links[0], block_addr, 64, content(64).data()); }
};

// A process of its own that runs `work` and ends with its result.
template <typename Work>
pid_t started(Work work)
{
    const pid_t child = fork();
    if (child == 0) { _exit(work()); }
    return child;
}

int status_of(pid_t child)
{
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// Root may do anything with any semaphore; this thread not, from here on.
void give_up_ipc_owner()
{
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    ASSERT_EQ(syscall(SYS_capget, &head, data), 0);
    data[CAP_IPC_OWNER / 32].effective &= ~(1u << CAP_IPC_OWNER % 32);
    ASSERT_EQ(syscall(SYS_capset, &head, data), 0);
}

std::string limits()
{
    std::string line;
    std::getline(std::ifstream("/proc/sys/kernel/sem"), line);
    return line;
}

void set_limits(const std::string& line) { std::ofstream("/proc/sys/kernel/sem") << line << std::flush; }

} // namespace

TEST_F(Semaphore, IsMadeOnceAndAttachedToAfterwards)
{
    EXPECT_EQ(Close_Eth_Raw(), 0);
    EXPECT_EQ(semaphore_value(), -1);
    ASSERT_EQ(open_semaphore(), 0);
    EXPECT_EQ(logged("sem_id = " + std::to_string(sem_id) + ", errno = "), 1u);
    EXPECT_EQ(semaphore_value(), 1);
    semid_ds found{};
    ASSERT_EQ(semctl(sem_id, 0, IPC_STAT, &found), 0);
    EXPECT_EQ(found.sem_perm.mode & 0777, 0666);
    EXPECT_EQ(found.sem_perm.__key, 1234569);
    const int first = sem_id;
    ASSERT_EQ(semaphore_p(), 0);
    ASSERT_EQ(open_semaphore(), 0); // whoever comes second leaves its value alone
    EXPECT_EQ(logged("sem_id(" + std::to_string(first) + ") already exits.\n"), 1u) << log_text();
    EXPECT_EQ(semaphore_value(), 0);
    ASSERT_EQ(semaphore_v(), 0);
}

// Each process has sockets of its own, and each of those sees what the other is answered.
TEST_F(Semaphore, TwoProcessesReadOnOneLink)
{
    start_cards();
    const bytes data = content(100'000);
    farm.write_bus(block_addr, data);
    const auto work = [&](int first_link) {
        xfer own[bus_links];
        bytes into(data.size());
        if (Open_Eth_Raw(own, bus_links) != 0) { return 1; }
        for (int round = 0; round < 20; ++round) {
            if (Read_FPGA_Bus_Block(&own[first_link], block_addr, 100'000, into.data()) != 0) { return 2; }
            if (into != data) { return 3; }
        }
        return 0;
    };
    const pid_t one = started([&] { return work(0); }), other = started([&] { return work(0); });
    EXPECT_EQ(status_of(one), 0);
    EXPECT_EQ(status_of(other), 0);
    EXPECT_EQ(semaphore_value(), 1);
    EXPECT_EQ(farm.counts().refusals(), "none");
}

TEST_F(Semaphore, AProcessKilledInsideAnOperationReleasesIt)
{
    start_cards();
    const pid_t victim = started([this] { // link 1 has no cards: it waits for ever
        bytes into(64);
        return Read_FPGA_Bus_Block(&links[1], block_addr, 64, into.data());
    });
    ASSERT_TRUE(soon([] { return semaphore_value() == 0; }));
    std::atomic<int32_t> result = 1;
    std::thread writer([&] { result = write(); });
    ASSERT_TRUE(soon([] { return semctl(sem_id, 0, GETNCNT) == 1; })); // asleep in its P
    EXPECT_EQ(result, 1);
    EXPECT_EQ(farm.counts().received, 0u);
    kill(victim, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(status_of(victim)));
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(semaphore_value(), 1);
    EXPECT_TRUE(soon([&] { return farm.counts().bus_writes == 1; }));
}

TEST_F(Semaphore, RemovedByAnotherProcessFailsThoseWhoWaitAndWhoeverHasIt)
{
    start_cards();
    ASSERT_EQ(semaphore_p(), 0);
    int32_t result = 1;
    std::thread writer([&] { result = write(); });
    ASSERT_TRUE(soon([] { return semctl(sem_id, 0, GETNCNT) == 1; }));
    EXPECT_EQ(status_of(started([] { return Close_Eth_Raw(); })), 0);
    writer.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reported("semaphore_p", "semaphore P func failed"), 1u) << log_text();
    EXPECT_EQ(semaphore_v(), -1);
    EXPECT_EQ(reported("semaphore_v", "semaphore V func failed"), 1u) << log_text();
    EXPECT_EQ(write(), -1); // until somebody opens anew
    EXPECT_EQ(Close_Eth_Raw(), 0);
    EXPECT_EQ(logged("Failed to delete semaphore\n"), 1u);
    EXPECT_EQ(set_semvalue(), -1);
    EXPECT_EQ(reported("set_semvalue", "set sem val failed."), 1u);
    EXPECT_EQ(farm.counts().received, 0u);
}

// An operation that is over is not undone by a semaphore that is gone at its end, but it fails.
TEST_F(Semaphore, ThatIsGoneAtTheEndFailsAnOperationThatWasGood)
{
    start_cards({.delay = 1.0, .delay_ms = 300});
    bytes into(64);
    int32_t result = 1;
    std::thread reader([&] { result = Read_FPGA_Bus_Block(&links[0], block_addr, 64, into.data()); });
    ASSERT_TRUE(soon([] { return semaphore_value() == 0; }));
    EXPECT_EQ(Close_Eth_Raw(), 0);
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reported("semaphore_v", "semaphore V func failed"), 1u) << log_text();
    EXPECT_EQ(logged("read_process_func() failed"), 0u);
}

TEST_F(Semaphore, ThatMayNotBeUsedFailsEveryOperation)
{
    start_cards();
    EXPECT_EQ(Close_Eth_Raw(), 0);
    ASSERT_GE(semget(bus_semaphore_key, 1, IPC_CREAT | IPC_EXCL), 0); // of permissions 0: somebody else's mistake
    std::thread([this] {
        give_up_ipc_owner();
        EXPECT_EQ(open_semaphore(), 0);
        EXPECT_EQ(write(), -1);
    }).join();
    EXPECT_EQ(reported("semaphore_p", "semaphore P func failed"), 1u) << log_text();
    EXPECT_EQ(farm.counts().received, 0u);
    EXPECT_EQ(Close_Eth_Raw(), 0);
}

TEST_F(Semaphore, ThatCannotBeMadeIsSaidAndFailsEveryOperation)
{
    start_cards();
    EXPECT_EQ(Close_Eth_Raw(), 0);
    const std::string before = limits();
    set_limits("250 32000 32 0"); // of this bench's alone
    take_log();
    EXPECT_EQ(open_semaphore(), 0);
    set_limits(before);
    EXPECT_EQ(sem_id, -1);
    EXPECT_EQ(log_text(), "sem_id = -1, errno = 28.\n"
                          "no semaphore of key 1234569 (No space left on device): every block operation will fail\n");
    EXPECT_EQ(write(), -1);
    EXPECT_EQ(reported("semaphore_p", "semaphore P func failed"), 1u);
    EXPECT_EQ(farm.counts().received, 0u);
    ASSERT_EQ(open_semaphore(), 0);
    EXPECT_EQ(write(), 0);
}

TEST_F(Semaphore, OpeningRefusesCountsAndMissingLinks)
{
    xfer handles[4];
    EXPECT_EQ(Open_Eth_Raw(handles, -1), -1);
    EXPECT_EQ(Open_Eth_Raw(handles, 4), -1);
    EXPECT_EQ(log_text(), "invalid cnt(-1).\ninvalid cnt(4).\n");
    run_command("ip link set eth2 down && ip link set eth2 name gone2");
    take_log();
    EXPECT_EQ(Open_Eth_Raw(handles, 1), -1); // all three are opened, whatever the count
    run_command("ip link set gone2 name eth2 && ip link set eth2 up");
    EXPECT_EQ(reported("netdev_init", "socket_init() failed(-1)."), 1u) << log_text();
    EXPECT_EQ(logged("netdev_init() failed(-1).\n"), 1u);
    EXPECT_EQ(Open_Eth_Raw(nullptr, 0), 0);
    take_log();
    EXPECT_EQ(Open_Eth_Raw(nullptr, 1), -1);
    EXPECT_EQ(reported("Open_Eth_Raw", "eth_raw_tranfser_set() failed."), 1u) << log_text();
}
