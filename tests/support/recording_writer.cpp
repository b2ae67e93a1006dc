#include "recording_writer.h"

#include <cstring>

Recording_Writer &recording_writer()
{
    static Recording_Writer writer;
    return writer;
}

void Recording_Writer::reset(QTRACE_FDESCR first_descriptor)
{
    *this = Recording_Writer();
    next_ = first_descriptor;
}

void Recording_Writer::fail_open(size_t k, bool for_ever)
{
    open_failure_ = {k, for_ever};
}

void Recording_Writer::fail_header(size_t k, bool for_ever)
{
    header_failure_ = {k, for_ever};
}

void Recording_Writer::fail_record(size_t k, bool for_ever)
{
    record_failure_ = {k, for_ever};
}

bool Recording_Writer::Failure::due()
{
    if (countdown == 0)
        return false;
    if (countdown > 1) {
        --countdown;
        return false;
    }
    countdown = for_ever ? 1 : 0;
    return true;
}

const Recording_Writer::File *Recording_Writer::file_named(const std::string &name) const
{
    const File *found = nullptr;
    for (const auto &[descriptor, file] : files_)
        if (file.name == name)
            found = &file;
    return found;
}

size_t Recording_Writer::open_files() const
{
    size_t count = 0;
    for (const auto &[descriptor, file] : files_)
        count += file.open ? 1 : 0;
    return count;
}

QTRACE_FDESCR Recording_Writer::open(const char *name, QTRACE_FILE_MODE mode)
{
    if (mode != QTRACE_WRITE || open_failure_.due()) {
        calls_.push_back({Writer_Call::Kind::open, -1, name, true});
        return -1;
    }
    const QTRACE_FDESCR descriptor = next_++;
    files_[descriptor] = {name, true, {}};
    calls_.push_back({Writer_Call::Kind::open, descriptor, name});
    return descriptor;
}

void Recording_Writer::close(QTRACE_FDESCR descriptor)
{
    calls_.push_back({Writer_Call::Kind::close, descriptor, {}});
    if (auto file = files_.find(descriptor); file != files_.end())
        file->second.open = false;
}

int Recording_Writer::write_header(QTRACE_FDESCR descriptor, const QTRACE_FILE_HDR &header)
{
    const bool fails = header_failure_.due() || !files_.contains(descriptor) || !files_[descriptor].open;
    calls_.push_back({Writer_Call::Kind::header, descriptor, {}, fails});
    if (fails)
        return 1;
    Written_Header kept{header, header.comment ? std::string(header.comment, header.comment_length) : ""};
    kept.header.comment = nullptr;
    files_[descriptor].items.emplace_back(std::move(kept));
    return 0;
}

int Recording_Writer::write_record(QTRACE_FDESCR descriptor, const QTRACE_RECORD &record)
{
    const bool fails = record_failure_.due() || !files_.contains(descriptor) || !files_[descriptor].open;
    calls_.push_back({Writer_Call::Kind::record, descriptor, {}, fails});
    if (fails)
        return 1;
    files_[descriptor].items.emplace_back(record);
    return 0;
}

void Recording_Writer::use_up(QTRACE_RECORD &record) const
{
    record.offset = record.record_count = record.instr_count = record.exec_instr_count = -1; // a library's own use
    if (scribble_)
        std::memset(&record, *scribble_, sizeof record);
}

extern "C" {

QTRACE_FDESCR QTRACE_Fopen(const char *name, QTRACE_FILE_MODE mode)
{
    return recording_writer().open(name, mode);
}

void QTRACE_Fclose(QTRACE_FDESCR file)
{
    recording_writer().close(file);
}

int QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header)
{
    return recording_writer().write_header(file, *header);
}

int QTRACE_FwriteRecord(QTRACE_FDESCR file, QTRACE_RECORD *record)
{
    const int result = recording_writer().write_record(file, *record);
    recording_writer().use_up(*record);
    return result;
}
}
