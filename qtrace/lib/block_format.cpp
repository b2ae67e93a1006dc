#include "block_format.h"

#include <algorithm>
#include <isa-l/crc.h>

namespace trace
{

// ISA-L leaves both inversions of the usual CRC32C to its caller.
uint32_t crc32c(const void *bytes, size_t size)
{
    auto *from = const_cast<unsigned char *>(static_cast<const unsigned char *>(bytes)); // it only reads
    return ~crc32_iscsi(from, static_cast<int>(size), 0xffffffffu);
}

std::array<uint8_t, FILE_START_SIZE> file_start()
{
    std::array<uint8_t, FILE_START_SIZE> bytes{};
    std::copy(FILE_MAGIC.begin(), FILE_MAGIC.end(), bytes.begin());
    store(&bytes[8], uint32_t{FORMAT_VERSION});
    store(&bytes[12], crc32c(bytes.data(), 12));
    return bytes;
}

Start_State judge_file_start(const uint8_t *bytes, size_t size, uint32_t &version)
{
    version = 0;
    const bool magic = std::equal(bytes, bytes + std::min(size, FILE_MAGIC.size()), FILE_MAGIC.begin());
    if (size < FILE_START_SIZE)
        return magic && size != 0 ? Start_State::cut : Start_State::not_a_trace;
    if (load<uint32_t>(bytes + 12) != crc32c(bytes, 12))
        return magic ? Start_State::damaged : Start_State::not_a_trace;
    if (!magic)
        return Start_State::not_a_trace;
    version = load<uint32_t>(bytes + 8);
    return version == FORMAT_VERSION ? Start_State::good : Start_State::other_version;
}

void store_block_header(const Block_Header &header, uint8_t *to)
{
    std::copy(BLOCK_MARKER.begin(), BLOCK_MARKER.end(), to);
    to[4] = FORMAT_VERSION;
    to[5] = header.flags;
    to[6] = header.compression;
    to[7] = 0;
    store(to + 8, header.stored_size);
    store(to + 12, header.raw_size);
    store(to + 16, header.records);
    store(to + 20, header.headers);
    store(to + 24, header.first_record);
    store(to + 32, header.first_header);
    store(to + 40, header.first_address);
    store(to + 48, header.payload_crc);
    store(to + 52, crc32c(to, 52));
}

static bool is_plausible(const Block_Header &header)
{
    const bool sizes = header.stored_size <= MAX_PAYLOAD && header.raw_size <= MAX_PAYLOAD &&
                       (header.compression != STORED || header.stored_size == header.raw_size);
    const bool flags = (header.flags & ~ALL_FLAGS) == 0 && (header.flags & (GAP_BEFORE | LEFT_OUT)) != LEFT_OUT;
    return sizes && header.compression <= ZSTD && flags;
}

std::optional<Block_Header> load_block_header(const uint8_t *from)
{
    if (!std::equal(BLOCK_MARKER.begin(), BLOCK_MARKER.end(), from) || from[4] != FORMAT_VERSION || from[7] != 0 ||
        load<uint32_t>(from + 52) != crc32c(from, 52))
        return std::nullopt;
    Block_Header header;
    header.flags = from[5];
    header.compression = from[6];
    header.stored_size = load<uint32_t>(from + 8);
    header.raw_size = load<uint32_t>(from + 12);
    header.records = load<uint32_t>(from + 16);
    header.headers = load<uint32_t>(from + 20);
    header.first_record = load<uint64_t>(from + 24);
    header.first_header = load<uint64_t>(from + 32);
    header.first_address = load<uint64_t>(from + 40);
    header.payload_crc = load<uint32_t>(from + 48);
    return is_plausible(header) ? std::optional(header) : std::nullopt;
}

bool is_comment_of(const Block_Header &comment, const Block_Header &block)
{
    return (comment.flags & COMMENT_BLOCK) != 0 && (block.flags & COMMENT_BEFORE) != 0 &&
           comment.first_record == block.first_record && comment.first_header == block.first_header;
}

} // namespace trace
