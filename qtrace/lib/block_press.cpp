#include "block_press.h"

#include <cstring>

namespace trace
{

namespace
{

size_t press(ZSTD_CCtx *context, const Compression_Choice &compression, const uint8_t *from, size_t size,
             uint8_t *to, Compression &used)
{
    if (compression.kind == ZSTD && context != nullptr) {
        const size_t pressed =
            ZSTD_compressCCtx(context, to, ZSTD_compressBound(size), from, size, compression.level);
        used = ZSTD;
        if (!ZSTD_isError(pressed) && pressed < size)
            return pressed;
    }
    used = STORED;
    if (size != 0)
        std::memcpy(to, from, size);
    return size;
}

} // namespace

void Press::append_block(std::vector<uint8_t> &to, Block_Header header, const Compression_Choice &compression,
                         const uint8_t *from, size_t size)
{
    const size_t begin = to.size();
    to.resize(begin + BLOCK_HEADER_SIZE + ZSTD_compressBound(size));
    uint8_t *stored = to.data() + begin + BLOCK_HEADER_SIZE;
    Compression used;
    header.stored_size = static_cast<uint32_t>(press(context.get(), compression, from, size, stored, used));
    header.compression = used;
    header.raw_size = static_cast<uint32_t>(size);
    header.payload_crc = crc32c(stored, header.stored_size);
    store_block_header(header, to.data() + begin);
    to.resize(begin + header.size());
}

} // namespace trace
