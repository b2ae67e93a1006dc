// Puts the blocks of a trace file together.
#pragma once

#include "block_format.h"

#include <memory>
#include <vector>
#include <zstd.h>

namespace trace
{

// Columns are short of repetitions that zstd could find by trying harder: its usual level takes three times as long
// to save a quarter of the file.
inline constexpr int DEFAULT_LEVEL = -5;

struct Compression_Choice {
    Compression kind = ZSTD;
    int level = DEFAULT_LEVEL;
};

// What it takes to seal a block.
struct Press {
    std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context{ZSTD_createCCtx(), ZSTD_freeCCtx};
    std::vector<uint8_t> payload = std::vector<uint8_t>(MAX_PAYLOAD); // room to put one together

    // Appends the block of that header, whose sizes, compression and checksum are found here. A payload that would not
    // become smaller is stored as it is.
    void append_block(std::vector<uint8_t> &to, Block_Header header, const Compression_Choice &compression,
                      const uint8_t *from, size_t size);
};

} // namespace trace
