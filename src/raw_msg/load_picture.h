// The picture loader: a picture file into one of two memories of an FPGA card behind link 1 or 2, for the bench tool.
// The file is read whole, turned into the card's pixels, staged with lines at the card's stride, and sent in pieces by
// plain writes: what a link loses or cannot send is missing in the picture. Its DDR2Write is its own, since this FPGA
// takes pictures otherwise than those that the file service writes to. Selectors are short strings read by position;
// one that is too short selects nothing, and nothing is sent then:
// ts_sel    second character: 'e' sends
// fpga_sel  second character: '1', 'A', 'a' link 1; '0', 'B', 'b' link 2. Third character: memory 1 or 0 likewise
#pragma once

#include <cstdint>

namespace rvk {

// Loads a picture of hor x ver pixels, 0 to 65,535 each and less than 2^29 together. A ".bmp" file has 24 bits a pixel,
// ".txt" and any other the card's own 4 bytes; what a file has too little is zero.
// addr    card memory address in units of 8 bytes
// Result  0 when the file was read, whatever became of its frames, and also when the selectors send none; -1: a size
//         that is refused, a file that cannot be opened or read, no memory. One thread at a time; the link is open
int32_t LoadPicture(uint32_t addr, int hor, int ver, const char* file, const char* ts_sel, const char* fpga_sel);

// Result: 0 for '0', 'B', 'b'; 1 for '1', 'A', 'a'; -1 for anything else.
[[nodiscard]] int convert_index(char c);
void RawMsgWriteTest(); // does nothing

} // namespace rvk
