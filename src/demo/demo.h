// The demo at start: nine pictures into the video-processing FPGA's buffers 16 to 24, played in a loop. Runs once, on
// the main thread, while commands are already served; nothing repeats or supervises it later. The FPGA is model 0,
// slot 1. Each card operation is under demo_mutex, so that it never interleaves with a command's exchange.
#pragma once

#include "base/picture.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

inline constexpr uint16_t demo_hor = 3840, demo_ver = 2160;                       // card
inline constexpr size_t demo_picture_bytes = picture_bytes({demo_hor, demo_ver}); // 33,177,600

// The whole sequence. Returns at once, without a word, when there is no memory for a picture.
void WriteDemoPictureData(int index);

// One picture into one buffer, without touching the playback. Nothing calls it.
void WriteDemoPictureDataTest(int index, uint32_t buffer, int number);

// Waits for the FPGA on link 0: until five good answers came, or 20 reads were made.
void CheckFpgaReady();

// Reads at most the buffer's bytes; a file that cannot be opened leaves it unchanged.
void ReadDemoPictureData(const char* path, std::span<uint8_t> buffer);

// The card operations, under demo_mutex. index, model, slot: the card.
// RawSockSendMsgWithReadWait of the destination's length, with a timeout of 3 ticks; its result.
int32_t DemoRawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest);

// RawSockSendMsgWithAckWait with a timeout of 3 ticks; its result. The card's status is not passed back.
int32_t DemoRawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      std::span<const uint8_t> data);

// DDR2Write; the lock is held for the whole picture, so that commands wait for it. Result: DDR2Write's.
int32_t write_demo_data(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                        std::span<const uint8_t> data);

// The playback registers; each ignores what the card says.
void DemoOutTimingConfig(int index);
void DemoPlayStart(int index);
void DemoTimingReset(int index);
void DemoTimingResetRelease(int index);
void DemoPlayIntervalSet(int index, int interval); // sent as interval x 200,000,000, clamped to 32 bits
void DemoPlayPicNumberSet(int index, int number);

} // namespace rvk
