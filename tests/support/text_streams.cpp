#include "text_streams.h"

#include "text.h"

#include <cctype>
#include <cstdlib>

Text_Streams::Text_Streams(size_t threads) : header_written_(threads, 1)
{
    for (size_t i = 0; i < threads; ++i) {
        auto stream = std::make_unique<Stream>();
        stream->file = open_memstream(&stream->data, &stream->size);
        files_.push_back(stream->file);
        streams_.push_back(std::move(stream));
    }
    qfile_in_text = files_.data();
    hdr_write = header_written_.data();
}

Text_Streams::~Text_Streams()
{
    qfile_in_text = nullptr;
    hdr_write = nullptr;
    for (const auto &stream : streams_) {
        fclose(stream->file);
        std::free(stream->data);
    }
}

void Text_Streams::close(int tid)
{
    files_.at(static_cast<size_t>(tid)) = nullptr;
}

void Text_Streams::expect_header(int tid)
{
    header_written_.at(static_cast<size_t>(tid)) = 0;
}

std::string Text_Streams::take(int tid)
{
    Stream &stream = *streams_.at(static_cast<size_t>(tid));
    const std::string text(stream.data + stream.taken, stream.size - stream.taken);
    stream.taken = stream.size;
    return text;
}

std::string Text_Streams::text_of(Node &node)
{
    dump_node_text(&node);
    return take(node.proc_index);
}

Node plain_node()
{
    Node node{};
    node.seq = 7;
    node.PC = 0x1000;
    node.nextPC = 0x1004;
    node.done = 1;
    node.commit = 1;
    node.info.instbody = 0x60000000;
    node.info.branch = '?';
    node.info.taken = '?';
    return node;
}

std::string full(const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '~') {
            result += text[i];
            continue;
        }
        size_t digits = 0;
        while (i + 1 + digits < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1 + digits])))
            ++digits;
        result.append(16 - digits, '0');
    }
    return result;
}
