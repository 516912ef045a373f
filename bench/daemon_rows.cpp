// The rows of the real rvkd, measured from outside: commands and answers at the requester, frames at the card by the
// kernel's stamps, memory and processor time by the kernel's figures. All of it on one processor.
//
// While the bare loop runs rvkd is stopped, and the loop uses a copy of rvkd's own packet socket. It sends the very
// frames that the cards recorded of ours, and waits for the same answers; in a process of its own, as rvkd is: what a
// change from there to the cards costs is no part of the difference.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "cards.h"
#include "command/values.h"
#include "demo/demo.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "harness.h"
#include "platform/local/endpoint.h"
#include "processes.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <sys/socket.h>
#include <sys/time.h>

namespace rvk::bench {
namespace {

using bytes = std::vector<uint8_t>;

constexpr uint32_t requester_identity = identity_of(201, 0x7F), relay_identity = identity_of(200, 0x7F),
                   floor_identity = identity_of(199, 0x7F);
constexpr size_t exchanges = 2000, outstanding = 1000;
constexpr uint8_t buffer = 1;
constexpr char folder[] = "/run/rvk-bench/";
const std::string picture_path = std::string(folder) + "picture.txt", image_path = std::string(folder) + "image.bin";

// A command for the card that every row talks to; len: the bytes wanted of a read, otherwise those of the payload.
bytes command_message(uint8_t code, uint32_t at, size_t len, std::span<const uint8_t> payload = {})
{
    bytes command(message_head_bytes + payload.size());
    uint8_t* m = command.data();
    store_le32(m + message::aptid, requester_identity);
    store_le16(m + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(m + message::data_len, static_cast<uint32_t>(data_head_bytes + payload.size()));
    m[message::id] = GetIdByIndex(0);
    m[message::code] = code;
    m[message::slot] = slot;
    store_le16(m + message::model, model);
    store_le32(m + message::addr, at);
    store_le16(m + message::len, static_cast<uint16_t>(len));
    std::copy(payload.begin(), payload.end(), m + message::payload);
    return command;
}

// A command for a file: two words before its path, of an update only the first.
bytes file_command(uint8_t code, uint32_t at, std::initializer_list<size_t> words, const std::string& path)
{
    bytes payload;
    for (const size_t word : words) {
        payload.resize(payload.size() + 4);
        store_le32(&payload[payload.size() - 4], static_cast<uint32_t>(word));
    }
    payload.insert(payload.end(), path.c_str(), path.c_str() + path.size() + 1);
    return command_message(code, at, payload.size(), payload);
}

// Makes a file of bytes that no neighbour shares: what is lost, moved or black shows. Result: its bytes.
bytes make_file(const std::string& path, size_t count)
{
    bytes content(count);
    uint32_t state = 1;
    for (uint8_t& b : content) { b = static_cast<uint8_t>((state = state * 1664525 + 1013904223) >> 24 | 1); }
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    tool::save(path, content);
    return content;
}

bytes make_picture(picture_size size) { return make_file(picture_path, picture_bytes(size)); }

class asking_process {
public:
    asking_process()
    {
        require(local::bind_endpoint(requester_identity, endpoint) == 0, "the requester has no endpoint");
    }

    void tell(uint32_t whom, const bytes& command)
    {
        require(local::send_datagram(endpoint.get(), whom, command) == 0, "a command cannot be sent");
    }

    // Waits for the answer: done, and with so many bytes of payload.
    void exchange(uint32_t whom, const bytes& command, size_t answer_bytes = 0)
    {
        tell(whom, command);
        const ssize_t length = local::receive_datagram(endpoint.get(), incoming, 0);
        require(length == static_cast<ssize_t>(message_head_bytes + answer_bytes) &&
                    load_le32(incoming.bytes + message::result) == 0,
                "a command failed: did something of higher priority keep the processor?");
    }

private:
    unique_fd endpoint;
    local::receive_buffer incoming;
};

// In the place of rvkd, with bare system calls only: takes a command, sends its frame, waits for the answer, answers a
// read. What it needs is made at the first command of a kind. late: the cards answer behind the last write. As a floor
// it has rvkd's thread for the answers, too.
class relay {
public:
    relay(uint32_t identity, int packet_socket, bool late) : link(packet_socket), own(identity), waits_for_each(!late)
    {
        require(local::bind_endpoint(own, endpoint) == 0 && local::endpoint_address(requester_identity, to),
                "the relay has no endpoint");
        if (own == floor_identity) { link.receive_by_thread(); }
    }

    void serve()
    {
        require(recv(endpoint.get(), incoming.bytes, sizeof incoming.bytes, 0) > 0, "the relay hears nothing");
        const bool reads = incoming.bytes[message::code] == command::read;
        frame_bytes& frame = reads ? ask : write;
        prepare(frame, reads ? code_read : code_write_ack, load_le16(incoming.bytes + message::len));
        link.send(frame);
        ++pending;
        for (; (reads || waits_for_each) && pending > 0; --pending) { link.await_answer(); }
        if (!reads) { return; }
        require(sendto(endpoint.get(), answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                       sizeof to) > 0,
                "the relay cannot answer");
    }

private:
    void prepare(frame_bytes& frame, uint8_t code, size_t count)
    {
        if (!frame.empty() && load_le16(&frame[request::len]) == count) { return; }
        frame = ready_made(code, addr, 0, count);
        if (code != code_read) { return; }
        answer.assign(message_head_bytes + count, 0);
        store_le32(answer.data(), own);
    }

    bare_link link;
    uint32_t own;
    bool waits_for_each;
    size_t pending = 0;
    unique_fd endpoint;
    sockaddr_un to{};
    frame_bytes ask, write;
    bytes answer;
    local::receive_buffer incoming;
};

// rvkd with its cards, whoever asks it, and what a bare loop has of it.
struct setting {
    explicit setting(int priority = card_priority) : cards(priority) { take_processor(requester_priority); }

    simulated_cards cards;
    child daemon = start_daemon(cards);
    unique_fd socket = packet_socket_of(daemon.pid());
    bare_link link{socket.get()};
    asking_process asker;

    void ask(const bytes& command, size_t answer_bytes = 0) { asker.exchange(own_identity(), command, answer_bytes); }

    [[nodiscard]] child start_relay(uint32_t identity, bool late)
    {
        child started([&] {
            take_processor(sender_priority);
            relay serving(identity, socket.get(), late);
            for (;;) { serving.serve(); }
        });
        while (!local::endpoint_alive(identity)) { pause_ms(1); }
        return started;
    }

    // Compares commands, which rvkd and then a relay serves, by the time of `work`; and the floor to that relay.
    void compare_to_relay(row about, bool late, size_t units, const std::function<void(uint32_t whom)>& work)
    {
        const auto timed = [&](uint32_t whom) { return time_per_unit(units, [&] { work(whom); }); };
        const child bare = start_relay(relay_identity, late);
        const auto of_relay = [&] { return daemon.stopped([&] { return timed(relay_identity); }); };
        const auto of_daemon = [&] { return timed(own_identity()); };
        compare(about, of_daemon, of_relay);
        daemon.stop();
        child floor = start_relay(floor_identity, late);
        about.work = "floor of that: such a relay with a thread for the answers";
        about.most = 0;
        const auto of_floor = [&] { return timed(floor_identity); };
        compare(about, of_floor, [&] { return floor.stopped([&] { return timed(relay_identity); }); });
        daemon.go_on();
    }

    // Compares the time from frame to frame to one address, while `work` runs, and while the frames of it are sent
    // again; and the floor to that.
    void compare_frames(row about, uint32_t to, size_t most, const std::function<void()>& work)
    {
        const auto frames = cards.arriving(most, work);
        const stamps at(to);
        frame_bytes copy;
        const auto send_all = [&](size_t copies) {
            for (const frame_bytes& frame : frames) { link.exchange(copies > 0 ? copy = frame : frame); }
            return 0.0;
        };
        worker bare(send_all);
        const auto of_bare = [&] { return bare.measure(0) + at.ns_per_frame(); };
        const auto of_daemon = [&] { return work(), at.ns_per_frame(); };
        compare(about, of_daemon, [&] { return daemon.stopped(of_bare); });
        daemon.stop();
        worker floor(send_all, [&] { link.receive_by_thread(), take_processor(file_priority); });
        const auto of_floor = [&] { return floor.measure(1) + at.ns_per_frame(); };
        about.work = "floor of that: each frame copied once, with a thread for the answers";
        about.most = 0;
        compare(about, of_floor, [&] { return floor.process().stopped(of_bare); });
        daemon.go_on();
    }
};

void write_rows(setting& on, bool late)
{
    const bytes last = command_message(command::read, addr, 16);
    for (const size_t count : {size_t{16}, frame_data_max}) {
        const bytes write = command_message(command::write_ack, addr, count, bytes(count, 0x5A));
        on.compare_to_relay({"1,000 acknowledged writes of " + std::to_string(count) +
                                 " bytes, not waited for, through rvkd; cards answer " +
                                 (late ? "when all are out" : "at once"),
                             "a relay of one thread", "ns per write", late ? 1.25 : 1.24},
                            late, outstanding, [&](uint32_t whom) {
                                for (size_t i = 0; i < outstanding; ++i) { on.asker.tell(whom, write); }
                                on.asker.exchange(whom, last, 16);
                            });
    }
}

// From the command to its answer; the bare loop also reads the file, into memory that is there.
void picture_job(setting& on, picture_size size, const std::string& name)
{
    const bytes pixels = make_picture(size);
    const bytes job = file_command(command::file_write, buffer, {size.hor, size.ver}, picture_path);
    const auto frames = on.cards.arriving(pixels.size() / frame_data_max + 4, [&] { on.ask(job); });
    require(on.cards.picture(buffer) == pixels, "the cards hold another picture than the file");
    bytes ready(pixels.size(), 0xFF);
    worker bare([&](size_t) {
        return time_per_unit(1'000'000, [&] {
            const unique_fd file = open_regular(picture_path.c_str(), O_RDONLY);
            require(read_full(file, ready) == ready.size(), "the picture's file cannot be read");
            for (const frame_bytes& frame : frames) { on.link.exchange(frame); }
        });
    });
    compare(
        {"picture " + name + " from a file by rvkd, command to answer",
         "the same frames, and reading the file into memory that is there", "ms", 1.12},
        [&] { return time_per_unit(1'000'000, [&] { on.ask(job); }); },
        [&] { return on.daemon.stopped([&] { return bare.measure(0); }); });
}

volatile sig_atomic_t ticks;

// A tick of 30 ms and a loop that sleeps 10 ms: less cannot keep the daemon's timing.
void tick_and_sleep()
{
    take_processor(89); // the check thread's
    signal(SIGALRM, [](int) { ticks = ticks + 1; });
    const itimerval every{{0, 30'000}, {0, 30'000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    for (;;) { pause_ms(10); }
}

// Of a process that is stopped before and after: of two that tick side by side, the one that wakes behind the other
// finds a processor that is awake, and half the time is that.
double microseconds_per_second(const child& process)
{
    process.go_on();
    pause_ms(100);
    const double before = processor_time_ns(process.pid());
    pause_ms(1000);
    const double used = processor_time_ns(process.pid()) - before;
    process.stop();
    return used / 1000;
}

// Its cards answer the readiness reads at once.
double seconds_to_playing()
{
    simulated_cards cards(card_priority);
    const tool::stop_watch watch;
    const child daemon = launch_daemon();
    for (pause_ms(5000); !cards.has_played("a0 := 00"); pause_ms(5)) {} // every look holds up the cards
    return watch.seconds();
}

} // namespace

void messages_row()
{
    setting on;
    for (const size_t count : {size_t{16}, frame_data_max}) {
        const bytes read = command_message(command::read, addr, count);
        on.compare_to_relay({"read of " + std::to_string(count) + " bytes, through rvkd",
                             "a relay of one thread with the same four system calls", "ns per read", 1.22},
                            false, exchanges, [&](uint32_t whom) {
                                for (size_t i = 0; i < exchanges; ++i) { on.asker.exchange(whom, read, count); }
                            });
    }
    write_rows(on, false);
}

void late_row()
{
    setting on(late_card_priority);
    write_rows(on, true);
}

void picture_row()
{
    setting on;
    picture_job(on, {1920, 1080}, "1920 × 1080");
    picture_job(on, {demo_hor, demo_ver}, "3840 × 2160");
    const bytes job = file_command(command::file_write, buffer, {demo_hor, demo_ver}, picture_path);
    const double idle = resident_bytes(on.daemon.pid());
    forget_peak(on.daemon.pid());
    on.ask(job);
    print({"rvkd's most memory during a 3840 × 2160 picture, after the demo", "the picture's bytes", "MB", 1.1},
          (peak_bytes(on.daemon.pid()) - idle) / 1e6, static_cast<double>(demo_picture_bytes) / 1e6);
    pause_ms(1000);
    print({"rvkd's memory a second after that picture", "the idle daemon before it", "MB", 1.05},
          resident_bytes(on.daemon.pid()) / 1e6, idle / 1e6);
    on.compare_frames({"frames of that picture, at the card", "the same frames, ready-made", "ns per frame", 1.1},
                      other_data, demo_picture_bytes, [&] { on.ask(job); });
}

void services_row()
{
    setting on;
    make_file(image_path, 2000 * 1024 - 256);
    const bytes update = file_command(command::update, 0, {0x1A}, image_path);
    on.compare_frames({"firmware piece of 1,024 bytes, with its file and progress, at the card",
                       "stop-and-wait of the same frames on one thread", "ns per piece", 1.55},
                      firmware_data, 3000, [&] { on.ask(update, 4); });
    make_picture({4, 4});
    const bytes put = file_command(command::file_write, buffer, {4, 4}, picture_path);
    const bytes get = file_command(command::file_read, 0, {1280, 360}, std::string(folder) + "back");
    on.compare_frames(
        {"read-back step of 1,400 bytes, at the card", "the same four exchanges on one thread", "ns per step", 1.42},
        read_command_register, 4 * 1400, [&] {
            on.asker.tell(own_identity(), get);
            on.ask(put); // is answered when the job before it is over
        });
}

void idle_row()
{
    const child bare(tick_and_sleep); // before the cards, whose pictures a child would have too
    bare.stop();
    const setting on;
    on.daemon.stop();
    compare(
        {"rvkd at rest, processor time", "a process with a 30 ms tick and a 10 ms sleep loop", "µs per second", 1.15},
        [&] { return microseconds_per_second(on.daemon); }, [&] { return microseconds_per_second(bare); });
    on.daemon.go_on();
    print({"rvkd at rest, resident memory", "the same", "MB", 6, false}, resident_bytes(on.daemon.pid()) / 1e6,
          resident_bytes(bare.pid()) / 1e6);
}

void start_row()
{
    constexpr char first_picture[] = "/usr/kup/etc/demo/demo_1";
    make_file(first_picture, demo_picture_bytes);
    std::vector<double> seconds;
    for (int i = std::min(3, rounds); i > 0; --i) { seconds.push_back(seconds_to_playing()); }
    std::filesystem::remove(first_picture);
    print({"rvkd from its start to the first picture playing, cards ready at once",
           "the pauses that the sequence asks for", "s", 6, false},
          median(seconds), 5.5);
}

} // namespace rvk::bench
