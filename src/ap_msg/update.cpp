// Update requests: what kind of image, for which generation of card, and by which way. Runs on the file-service thread;
// every request that comes this far is answered.
#include "ap_msg/file_service.h"

#include "ap_msg/firmware.h"
#include "base/bytes.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <unistd.h>

namespace rvk {
namespace {

using namespace update_type;
constexpr size_t tool_line_bytes = 1024;               // ours
constexpr char tool_lock_path[] = "/run/mcu_isp.lock"; // ours
constexpr uint32_t generation_ticks = 6;               // ours

constexpr char new_generation_image[] = "/opt/upgddir/update_sources_card/fpga_bin/InputCardTop_b1.bin";
constexpr char new_generation_marker[] = "b1.bin";

struct update_request {
    uint32_t type;
    uint16_t model;
    uint8_t slot;
    job_path path;
};

// A path in a log line.
printable shown(const update_request& request) { return printable(request.path.data()); }

// The input card's generation, as its microcontroller reports it. Result: false, and logged, when it does not.
bool read_generation(uint8_t* generation)
{
    uint32_t received = 0;
    int32_t result = 0;
    {
        const scoped_lock hold(demo_mutex);
        result = RawSockSendMsgWithReadWait(0, 0, generation_slot, generation_register, code_read, 1, {generation, 1},
                                            &received, generation_ticks);
    }
    if (result != 0) {
        log_print(LOG_HERE, "RawSockSendMsgWithReadWait response not ok\n");
        return false;
    }
    log_print(LOG_HERE, "RawSockSendMsgWithReadWait get ok:[%x],length:[%d]\n", *generation,
              static_cast<int>(received));
    return true;
}

void set_model_low(update_request* request, uint8_t low)
{
    request->model = static_cast<uint16_t>((request->model & 0xFF00) | low);
}

// What a new-generation card changes: by type, and by whether the path names an image for it already.
void adapt_to_new_generation(update_request* request)
{
    const bool named = strstr(request->path.data(), new_generation_marker) != nullptr;
    if (request->type == fpga_input) {
        if (!named) { std::copy_n(new_generation_image, sizeof new_generation_image, request->path.begin()); }
        set_model_low(request, 0x01);
        log_print(LOG_HERE, "SET INPUT INFO:[%#x], filename:[%s]\n", request->model, shown(*request).text);
    } else if (!named) {
        set_model_low(request, 0xFE);
        log_print(LOG_HERE, "SET INPUT GOLDEN INFO:[%#x], filename:[%s]\n", request->model, shown(*request).text);
    }
}

void check_input_card(update_request* request)
{
    log_print(LOG_HERE, "UPDATE input FPGA FILE [%s], need check!\n", shown(*request).text);
    uint8_t generation = 0;
    if (!read_generation(&generation)) { return; }
    if (generation > 1) { return log_print(LOG_HERE, "mcu return input card type fail:[%#x]\n", generation); }
    log_print(LOG_HERE, generation == 0 ? "old input card\n" : "new input card\n");
    if (generation == 1) { adapt_to_new_generation(request); }
}

// The lock under which one tool at a time programs a chip: the tool inherits it, so that it lasts as long as the tool
// does, whatever becomes of this process. Result: none, and logged, while one runs.
unique_fd lock_for_tool()
{
    unique_fd lock{open(tool_lock_path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600)}; // not close-on-exec
    if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0) { return lock; }
    log_print(LOG_HERE, "no programming tool is started: %s: %s\n", tool_lock_path,
              errno == EWOULDBLOCK ? "one that was started earlier still runs" : strerror(errno));
    return {};
}

int32_t run_tool(const update_request& request)
{
    char line[tool_line_bytes] = "";
    const bool is_vpu = request.type == mcu_vpu;
    const char* const card = request.type == mcu_input ? "input " : is_vpu ? "vpu    " : "output ";
    const int length = snprintf(line, sizeof line, "/usr/vexo/bin/mcu_isp -B %s -C 0x31 -b %s %s", card,
                                request.path.data(), is_vpu ? "-r 0x00 " : "");
    if (!is_plain_path(request.path.data()) || length >= static_cast<int>(tool_line_bytes)) {
        log_print(LOG_HERE, "image %s refused: its path is too long or not plain enough for a command line\n",
                  shown(request).text);
        return -1;
    }
    if (!open_regular(request.path.data(), O_RDONLY)) { // a FIFO would keep the tool, and with it every command
        log_print(LOG_HERE, "image %s refused: %s\n", request.path.data(), open_failure());
        return -1;
    }
    const unique_fd lock = lock_for_tool();
    if (!lock) { return -1; }
    log_print(LOG_HERE, "    cmdstr=%s \n\n", line);
    return my_system(line);
}

int32_t carry_out(const update_request& request)
{
    log_print(LOG_HERE, "update slot:%d model:0x%x type:0x%x file:%s\n", request.slot, request.model, request.type,
              shown(request).text);
    if (request.type >= mcu_input && request.type <= mcu_vpu) { return run_tool(request); }
    if (request.type >= fpga_input && request.type <= fpga_last) {
        return sys_update(request.path.data(), request.model, request.slot);
    }
    log_print(LOG_HERE, "    no file need to update in round 1... \n");
    return 0;
}

int32_t handle(update_request* request)
{
    if (request->type == fpga_input || request->type == fpga_input_golden) { check_input_card(request); }
    const bool found = access(request->path.data(), F_OK) == 0;
    log_print(LOG_HERE, "%s file %s\n", shown(*request).text, found ? "found" : "not found");
    return found ? carry_out(*request) : -1;
}

} // namespace

int32_t update_file_handle(const received_command& c)
{
    update_request request{0, c.model, c.slot, {}};
    int32_t result = -1;
    if (read_path(c.payload, update_job::path, update_path_max, &request.path) == 0) {
        request.type = load_le32(&c.payload[update_job::type]);
        result = handle(&request);
    }
    update_file_resp(c, result);
    return result;
}

void update_file_resp(const received_command& c, int32_t result)
{
    send_update_response(c, result);
    log_print(LOG_HERE, "write file response %s\n", result == 0 ? "ok" : "not ok");
}

} // namespace rvk
