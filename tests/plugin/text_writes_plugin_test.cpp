// How often the text trace asks the operating system to write: the thread's text file is replaced by a socket that
// keeps the bounds of every write(2).
#include "text_streams.h"
#include "traced_machine.h"

#include "text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

using ::testing::EndsWith;
using ::testing::StartsWith;

namespace
{

// A session of one thread with a text trace whose writes can be looked at one by one.
class Observed_Writes
{
public:
    Observed_Writes()
    {
        machine.start_with_text();
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
        reader_ = ends[0];
        EXPECT_GE(dup2(ends[1], fileno(qfile_in_text[0])), 0);
        ::close(ends[1]);
    }
    ~Observed_Writes() { ::close(reader_); }

    // The writes since the last call.
    std::vector<std::string> take()
    {
        std::vector<std::string> writes;
        for (;;) {
            std::string data(1 << 18, '\0');
            const ssize_t size = recv(reader_, data.data(), data.size(), MSG_DONTWAIT);
            if (size < 0)
                return writes;
            data.resize(static_cast<size_t>(size));
            writes.push_back(std::move(data));
        }
    }

    Traced_Machine machine;

private:
    int reader_ = -1;
};

Node longest_node()
{
    Node node = plain_node();
    node.I = node.N = node.T = 1;
    node.pc_radix_type = node.data_radix_type = Z7_GuestRadixOnHostRadix;
    node.PC_relocation = node.info.data_relocation = 1;
    node.pc_host_walkdepth = node.data_host_walkdepth = 2;
    node.pc_guest_walkdepth = node.data_guest_walkdepth = 5;
    node.info.load = node.info.data_addr_valid = 1;
    for (Plugin_Inst_Registers *r : {&node.reg_in, &node.reg_out}) {
        r->gpr_num = MAX_GPRS;
        r->fpr_num = MAX_FPRS;
        r->spr_num = MAX_SPRS;
        r->vsx_num = MAX_VSXRS;
        r->vmx_num = MAX_VMXRS;
    }
    return node;
}

TEST(text_writes, one_write_for_a_plain_line)
{
    Observed_Writes observed;
    hdr_write[0] = 1;
    Node node = plain_node();
    dump_node_text(&node);
    const auto writes = observed.take();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_THAT(writes[0], StartsWith("(seq:7,"));
    EXPECT_THAT(writes[0], EndsWith("(done) \n"));
}

TEST(text_writes, one_write_for_the_longest_nested_walks_and_all_registers)
{
    Observed_Writes observed;
    hdr_write[0] = 1;
    Node node = longest_node();
    dump_node_text(&node);
    const auto writes = observed.take();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_GT(writes[0].size(), 8192u); // more than a stream's usual buffer
    EXPECT_THAT(writes[0], EndsWith("\n"));
}

TEST(text_writes, header_and_partition_lines_go_with_their_record_line)
{
    Observed_Writes observed;
    Node node = longest_node();
    node.partition_change = 1;
    node.pages_used = node.gpages_used = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    dump_node_text(&node);
    const auto writes = observed.take();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_THAT(writes[0], StartsWith("*** FILE HEADER INSERTED *** \n"));
    EXPECT_THAT(writes[0], EndsWith("\n"));
}

TEST(text_writes, one_write_for_every_instruction_of_a_session)
{
    Observed_Writes observed;
    observed.machine.commit_run(20);
    const auto writes = observed.take();
    ASSERT_EQ(writes.size(), 19u); // the newest instruction waits for its successor
    EXPECT_THAT(writes[0], StartsWith("*** FILE HEADER"));
    for (size_t i = 1; i < writes.size(); ++i)
        EXPECT_THAT(writes[i], StartsWith("(seq:" + std::to_string(i) + ","));
}

} // namespace
