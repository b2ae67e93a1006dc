// Threads of the tool over small traces of several blocks. Also built with ThreadSanitizer.
#include "jobs_commands.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

using namespace jobs_commands;

namespace
{

constexpr size_t RECORDS = 9000;
constexpr uint8_t REGISTERS = 8;

void expect_equal_output(const Words &command, const Files &files)
{
    const Outcome alone = run(command, "1", files);
    const std::string written = bytes_of(files.out);
    const Outcome together = run(command, "3", files);
    EXPECT_TRUE(together.out == alone.out && bytes_of(files.out) == written) << testing::PrintToString(command);
    EXPECT_EQ(together.err, alone.err) << testing::PrintToString(command);
}

} // namespace

TEST(tool_threads, read_one_file_for_every_command)
{
    const Folder folder;
    const std::string whole = folder.write("trace0", mixed_trace(RECORDS, REGISTERS));
    std::string bytes = folder.contents("trace0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string spoilt = folder.text("spoilt0", bytes);
    for (const Words &command : commands())
        expect_equal_output(command, {spoilt, "", folder.path("out0")});
    for (const Words &command : comparisons())
        expect_equal_output(command, {whole, spoilt, ""});
}

// The disk is full before the threads that read are done.
TEST(tool_threads, end_when_the_output_fails)
{
    const Folder folder;
    const std::string whole = folder.write("trace0", mixed_trace(RECORDS, REGISTERS));
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 4096;
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    const Outcome done =
        run({"export", "--format", "csv", "-o", "OUT", "FILE"}, "3", {whole, "", folder.path("out")});
    limit.rlim_cur = before;
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "qtrace: " + folder.path("out") + ": File too large\n");
    EXPECT_FALSE(std::filesystem::exists(folder.path("out")));
}
