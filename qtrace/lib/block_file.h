// The blocks of a trace file, whole ones found among damaged bytes.
#pragma once

#include "block_format.h"
#include "input_file.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <zstd.h>

namespace trace
{

// A trace file that is open, to be shared by those who read it.
struct Trace_Source {
    std::string name;
    std::shared_ptr<const Input_File> file;
    uint64_t begin = 0; // offset of the first block, or 0 when the file's start is damaged
};

// Opens `name`. Returns an empty text, or why it is no readable trace.
std::string open_trace(const char *name, Trace_Source &source);

// "NAME: byte OFFSET: REASON"
std::string located(const std::string &name, uint64_t offset, const std::string &reason);

// One reader's view of a file: buffers for one payload. `error` is the errno of a read that failed, and stays set.
class Block_File
{
public:
    explicit Block_File(std::shared_ptr<const Input_File> file) : file_(std::move(file)) {}

    uint64_t size() const { return file_->size(); }
    // The block header at `offset`, if there is one; its payload may be cut or damaged.
    std::optional<Block_Header> header_at(uint64_t offset);
    // The block at `offset` when it is whole; its payload has been read then.
    std::optional<Block_Place> whole_at(uint64_t offset);
    // Whether all bytes of the block are there.
    bool holds(const Block_Place &place) const { return file_->holds(place.offset, place.header.size()); }
    // Reads the payload that belongs to it; false when it is not whole or its checksum differs.
    bool read_payload(const Block_Place &place);
    // The payload last read: as stored; decompressed, or null when it does not decompress to its size.
    const uint8_t *stored() const { return stored_.data(); }
    const uint8_t *unpack(const Block_Header &header);
    // The first whole block at or after `from`, its payload read.
    std::optional<Block_Place> find(uint64_t from);

    int error = 0;

private:
    bool fill_window(uint64_t from);
    const uint8_t *next_marker(uint64_t from) const;

    std::shared_ptr<const Input_File> file_;
    std::vector<uint8_t> stored_ = std::vector<uint8_t>(MAX_PAYLOAD), raw_ = std::vector<uint8_t>(MAX_PAYLOAD);
    std::vector<uint8_t> window_; // bytes searched last, kept for the next damaged place nearby
    uint64_t window_offset_ = 0;
    std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context_{ZSTD_createDCtx(), ZSTD_freeDCtx};
};

} // namespace trace
