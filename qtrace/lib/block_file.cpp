#include "block_file.h"

#include <algorithm>
#include <cstring>

namespace trace
{

namespace
{

constexpr size_t SEARCH_WINDOW = 1 << 16;

// Why a file cannot be read as a trace; empty when its blocks can be looked for at `source.begin`.
std::string judge_start(Block_File &blocks, Trace_Source &source)
{
    uint8_t bytes[FILE_START_SIZE];
    const size_t got = source.file->read(0, bytes, sizeof bytes, blocks.error);
    if (blocks.error != 0)
        return located(source.name, 0, std::strerror(blocks.error));
    if (source.file->size() == 0)
        return located(source.name, 0, "the file is empty");
    uint32_t version = 0;
    const Start_State state = judge_file_start(bytes, got, version);
    source.begin = state == Start_State::good ? FILE_START_SIZE : 0;
    if (state == Start_State::good)
        return {};
    if (state == Start_State::cut)
        return located(source.name, got, "the file ends inside its first bytes");
    if (state == Start_State::other_version)
        return located(source.name, 8,
                       "format version " + std::to_string(version) + " is not known, only " +
                           std::to_string(FORMAT_VERSION));
    return blocks.find(0) ? std::string() : located(source.name, 0, "not a trace file");
}

} // namespace

std::string located(const std::string &name, uint64_t offset, const std::string &reason)
{
    return name + ": byte " + std::to_string(offset) + ": " + reason;
}

std::string open_trace(const char *name, Trace_Source &source)
{
    if (name == nullptr)
        return "no name given";
    source.name = name;
    const auto file = std::make_shared<Input_File>();
    if (const int error = file->open(name); error != 0)
        return source.name + ": " + std::strerror(error);
    source.file = file;
    Block_File blocks(file);
    return judge_start(blocks, source);
}

std::optional<Block_Header> Block_File::header_at(uint64_t offset)
{
    uint8_t bytes[BLOCK_HEADER_SIZE];
    if (!file_->holds(offset, sizeof bytes) || file_->read(offset, bytes, sizeof bytes, error) != sizeof bytes)
        return std::nullopt;
    return load_block_header(bytes);
}

std::optional<Block_Place> Block_File::whole_at(uint64_t offset)
{
    const std::optional<Block_Header> header = header_at(offset);
    return header && read_payload({offset, *header}) ? std::optional(Block_Place{offset, *header}) : std::nullopt;
}

bool Block_File::read_payload(const Block_Place &place)
{
    const size_t size = place.header.stored_size;
    return holds(place) && file_->read(place.offset + BLOCK_HEADER_SIZE, stored_.data(), size, error) == size &&
           crc32c(stored_.data(), size) == place.header.payload_crc;
}

const uint8_t *Block_File::unpack(const Block_Header &header)
{
    if (header.compression == STORED)
        return stored_.data();
    // The library would take several frames, and pass over those to be skipped, without a word.
    if (!context_ || header.stored_size < sizeof(uint32_t) || load<uint32_t>(stored_.data()) != ZSTD_MAGICNUMBER ||
        ZSTD_findFrameCompressedSize(stored_.data(), header.stored_size) != header.stored_size)
        return nullptr;
    const size_t size =
        ZSTD_decompressDCtx(context_.get(), raw_.data(), header.raw_size, stored_.data(), header.stored_size);
    return size == header.raw_size ? raw_.data() : nullptr;
}

// Makes the window begin at or before `from`, with at least a block header after it; false at the end of the file.
bool Block_File::fill_window(uint64_t from)
{
    const uint64_t window_end = window_offset_ + window_.size();
    if (from >= window_offset_ && from + BLOCK_HEADER_SIZE <= window_end)
        return true;
    if (!file_->holds(from, BLOCK_HEADER_SIZE))
        return false;
    window_.resize(std::min<uint64_t>(SEARCH_WINDOW, size() - from));
    window_offset_ = from;
    window_.resize(file_->read(from, window_.data(), window_.size(), error));
    return window_.size() >= BLOCK_HEADER_SIZE;
}

// The next byte of the window that may begin a block header which ends in it; null when there is none.
const uint8_t *Block_File::next_marker(uint64_t from) const
{
    const uint8_t *begin = window_.data() + (from - window_offset_);
    const uint8_t *end = window_.data() + window_.size() - BLOCK_HEADER_SIZE + 1;
    return static_cast<const uint8_t *>(std::memchr(begin, BLOCK_MARKER[0], static_cast<size_t>(end - begin)));
}

std::optional<Block_Place> Block_File::find(uint64_t from)
{
    while (fill_window(from)) {
        const uint8_t *marker = next_marker(from);
        if (marker == nullptr) {
            from = window_offset_ + window_.size() - BLOCK_HEADER_SIZE + 1;
            continue;
        }
        from = window_offset_ + static_cast<uint64_t>(marker - window_.data());
        const std::optional<Block_Header> header = load_block_header(marker);
        if (header && read_payload({from, *header}))
            return Block_Place{from, *header};
        ++from;
    }
    return std::nullopt;
}

} // namespace trace
