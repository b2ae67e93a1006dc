// The reader of trace files against any bytes. Checksums would keep the fuzzer out of the blocks; so with an odd
// first byte the rest of the input becomes the payload of blocks whose headers and checksums are right.
#include "block_format.h"
#include "qtrace_reader.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

// A file in memory that is filled anew for every input.
class Memory_File
{
public:
    Memory_File() : descriptor_(memfd_create("trace", 0)), name_("/proc/self/fd/" + std::to_string(descriptor_)) {}
    void fill(const std::vector<uint8_t> &bytes) const
    {
        if (ftruncate(descriptor_, 0) != 0 ||
            pwrite(descriptor_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
            abort();
    }
    const char *name() const { return name_.c_str(); }

private:
    int descriptor_;
    std::string name_;
};

void append_block(std::vector<uint8_t> &file, const uint8_t *payload, size_t size, trace::Block_Header header)
{
    header.stored_size = header.raw_size = static_cast<uint32_t>(size);
    header.payload_crc = trace::crc32c(payload, size);
    const size_t begin = file.size();
    file.resize(begin + header.size());
    trace::store_block_header(header, &file[begin]);
    if (size != 0)
        std::memcpy(&file[begin + trace::BLOCK_HEADER_SIZE], payload, size);
}

// Bytes 0 and 1 say flags and counts; the payload stands twice, so that numbers and comments of blocks meet.
std::vector<uint8_t> around_payload(const uint8_t *data, size_t size)
{
    const auto start = trace::file_start();
    std::vector<uint8_t> file(start.begin(), start.end());
    trace::Block_Header header;
    header.flags = data[0] >> 1 & trace::ALL_FLAGS;
    header.records = data[1] & 15;
    header.headers = data[1] >> 4;
    const size_t payload = std::min<size_t>(size - 2, trace::MAX_PAYLOAD);
    append_block(file, data + 2, payload, header);
    header.first_record = header.records;
    header.first_header = header.headers;
    header.flags = trace::LAST_BLOCK | trace::COMMENT_BEFORE;
    append_block(file, data + 2, payload, header);
    return file;
}

uint64_t read_all(QTRACE_Reader *reader, size_t size)
{
    uint64_t records = 0, items = 0;
    const QTRACE_Item *item;
    for (;;) {
        const QTRACE_ITEM kind = qtrace_next(reader, &item);
        if (kind == QTRACE_ITEM_END || kind == QTRACE_ITEM_ERROR)
            return records;
        records += kind == QTRACE_ITEM_RECORD;
        if (kind == QTRACE_ITEM_HEADER && item->header.comment != nullptr &&
            item->header.comment[item->header.comment_length] != 0)
            abort();
        if (kind == QTRACE_ITEM_DISCONTINUITY && std::strlen(qtrace_error(reader)) == 0)
            abort();
        // Compressed or not, a byte of a file cannot stand for that many items.
        if (++items > 65536 * (size + 1))
            abort();
    }
}

// Every block by a reader of its own.
void read_blocks(const char *name, size_t size)
{
    QTRACE_Index *index = qtrace_index_open(name, nullptr);
    if (index == nullptr)
        abort();
    uint64_t count = 0;
    qtrace_index_blocks(index, &count);
    for (uint64_t block = 0; block < count; ++block) {
        QTRACE_Reader *reader = qtrace_open_with_index(index);
        if (qtrace_select_blocks(reader, block, 1) != 0)
            abort();
        read_all(reader, size);
        qtrace_close(reader);
    }
    qtrace_index_close(index);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Memory_File memory;
    if (size < 2)
        return 0;
    memory.fill(data[0] & 1 ? around_payload(data, size) : std::vector<uint8_t>(data + 1, data + size));
    char *error = nullptr;
    QTRACE_Reader *reader = qtrace_open(memory.name(), &error);
    if (reader == nullptr) {
        free(error);
        return 0;
    }
    const uint64_t records = read_all(reader, size);
    QTRACE_Info info;
    qtrace_info(reader, &info);
    qtrace_verify(reader, &info);
    for (const uint64_t record : {uint64_t{0}, records / 2, records, ~uint64_t{0}}) {
        qtrace_seek(reader, record);
        qtrace_next(reader, nullptr);
    }
    qtrace_open_header(reader);
    qtrace_close(reader);
    read_blocks(memory.name(), size);
    return 0;
}
