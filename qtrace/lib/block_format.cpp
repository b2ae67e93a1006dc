#include "block_format.h"

#include <algorithm>
#include <isa-l/crc.h>
#include <type_traits>

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

namespace
{

constexpr size_t ZERO_BYTE = 7, CHECKSUM = 52;

// Calls visit(offset, member) for every member of the header as it stands in the file.
template <class Header, class Visitor> void visit_members(Header &header, Visitor visit)
{
    visit(4, header.version);
    visit(5, header.flags);
    visit(6, header.compression);
    visit(8, header.stored_size);
    visit(12, header.raw_size);
    visit(16, header.records);
    visit(20, header.headers);
    visit(24, header.first_record);
    visit(32, header.first_header);
    visit(40, header.first_address);
    visit(48, header.payload_crc);
}

bool is_plausible(const Block_Header &header)
{
    const bool sizes = header.stored_size <= MAX_PAYLOAD && header.raw_size <= MAX_PAYLOAD &&
                       (header.compression != STORED || header.stored_size == header.raw_size);
    const bool flags = (header.flags & ~ALL_FLAGS) == 0 && (header.has(GAP_BEFORE) || !header.has(LEFT_OUT));
    // No trace is that long; and so nobody has to think of numbers that wrap.
    const bool numbers =
        header.records_after() >= header.first_record && header.headers_after() >= header.first_header;
    return header.version == FORMAT_VERSION && header.compression <= ZSTD && sizes && flags && numbers;
}

} // namespace

void store_block_header(const Block_Header &header, uint8_t *to)
{
    std::copy(BLOCK_MARKER.begin(), BLOCK_MARKER.end(), to);
    to[ZERO_BYTE] = 0;
    visit_members(header, [to](size_t offset, auto member) { store(to + offset, member); });
    store(to + CHECKSUM, crc32c(to, CHECKSUM));
}

std::optional<Block_Header> load_block_header(const uint8_t *from)
{
    if (!std::equal(BLOCK_MARKER.begin(), BLOCK_MARKER.end(), from) || from[ZERO_BYTE] != 0 ||
        load<uint32_t>(from + CHECKSUM) != crc32c(from, CHECKSUM))
        return std::nullopt;
    Block_Header header;
    visit_members(header, [from](size_t offset, auto &member) {
        member = load<std::remove_reference_t<decltype(member)>>(from + offset);
    });
    return is_plausible(header) ? std::optional(header) : std::nullopt;
}

bool is_comment_of(const Block_Header &comment, const Block_Header &block)
{
    return (comment.flags & COMMENT_BLOCK) != 0 && (block.flags & COMMENT_BEFORE) != 0 &&
           comment.first_record == block.first_record && comment.first_header == block.first_header;
}

} // namespace trace
