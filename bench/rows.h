// The rows of the table: one function each, run in a process of its own, so that no thread, socket or pool of one is
// there while another is measured. Each prints its lines.
#pragma once

namespace rvk::bench {

struct settings {
    int rounds;
};

void plain_write_row(const settings& chosen);
void instructions_row(const settings& chosen);
void read_row(const settings& chosen);
void messaging_row(const settings& chosen);
void acknowledged_row(const settings& chosen);
void queue_row(const settings& chosen);
void pool_row(const settings& chosen);
void idle_row(const settings& chosen);
void picture_row(const settings& chosen);
void picture_job_row(const settings& chosen);
void read_back_row(const settings& chosen);
void firmware_row(const settings& chosen);
void start_row(const settings& chosen);
void memory_row(const settings& chosen);
void bus_write_row(const settings& chosen);
void bus_read_row(const settings& chosen);
void load_picture_row(const settings& chosen);

// The other side of instructions_row: sends frames under callgrind, `which` being "ours" or "bare".
void count_instructions_of(const char* which);

} // namespace rvk::bench
