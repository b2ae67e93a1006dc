// Opening and closing a session: file names, failures to create files, the session's tables, the order of closing.
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace
{

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = Writer_Call::Kind;

constexpr unsigned REMOVE_THREAD0 = PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE;

replay::Machine_Shape with_short_names(uint32_t processors, uint32_t threads)
{
    return {
        .processors = processors, .threads = threads, .version = 3, .memory = 4096, .options = {REMOVE_THREAD0}};
}

// Descriptors of the calls of one kind, in call order.
std::vector<QTRACE_FDESCR> files_of(Kind kind)
{
    std::vector<QTRACE_FDESCR> found;
    for (const Writer_Call &call : recording_writer().calls())
        if (call.kind == kind)
            found.push_back(call.file);
    return found;
}

// The base name that makes an output file's full name `length` characters long.
std::string base_of_length(const Traced_Machine &m, size_t length, const std::string &index = "0")
{
    const size_t used = m.path("x").size() - 1 + index.size();
    return m.path(std::string(length - used, 'n'));
}

// ---- names ------------------------------------------------------------------------------------------------

TEST(session, every_thread_has_a_file_named_with_its_index)
{
    Traced_Machine m(2, 2);
    m.signal({"start", m.path("t")});
    for (int tid = 0; tid < 4; ++tid) {
        const auto *file = recording_writer().file_named(m.path("t" + std::to_string(tid)));
        ASSERT_NE(file, nullptr) << tid;
        EXPECT_EQ(file, &recording_writer().file(qfile_in_bin[tid]));
    }
    EXPECT_EQ(recording_writer().open_files(), 4u);
}

TEST(session, third_index_is_the_first_thread_of_the_second_processor)
{
    Traced_Machine m(2, 2);
    m.start();
    m.signal({"pause", "cpu", "1", "thread", "0"});
    for (int tid = 0; tid < 4; ++tid)
        m.commit_run(1, tid);
    m.stop();
    EXPECT_EQ(m.order(1), "HR");
    EXPECT_EQ(m.order(2), "");
    EXPECT_EQ(m.order(3), "HR");
}

TEST(session, text_and_pte_families_are_named_from_their_own_bases)
{
    Traced_Machine m(3, 4);
    m.start_with_everything();
    m.stop();
    for (int tid = 0; tid < 12; ++tid) {
        EXPECT_TRUE(std::filesystem::exists(m.path("text" + std::to_string(tid)))) << tid;
        EXPECT_TRUE(std::filesystem::exists(m.path("pte" + std::to_string(tid)))) << tid;
    }
    EXPECT_FALSE(std::filesystem::exists(m.path("text12")));
}

TEST(session, remove_option_drops_the_last_character_on_a_machine_of_one_thread)
{
    Traced_Machine m(with_short_names(1, 1));
    m.signal({"start", m.path("trace0"), "txt", m.path("text0"), "pte", m.path("pteX")});
    EXPECT_NE(recording_writer().file_named(m.path("trace")), nullptr);
    EXPECT_EQ(recording_writer().calls().size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(m.path("text")));
    EXPECT_TRUE(std::filesystem::exists(m.path("pte")));
    EXPECT_THAT(m.printed(), HasSubstr(m.path("trace0") + "*")); // the line names what the user typed
}

TEST(session, remove_option_leaves_nothing_of_a_name_of_one_letter)
{
    Traced_Machine m(with_short_names(1, 1));
    m.signal({"start", "x"});
    EXPECT_NE(recording_writer().file_named(""), nullptr);
}

TEST(session, remove_option_has_no_effect_on_a_larger_machine)
{
    for (const auto &[processors, threads] : {std::pair{1u, 2u}, {2u, 1u}}) {
        Traced_Machine m(with_short_names(processors, threads));
        m.signal({"start", m.path("trace0"), "txt", m.path("text0")});
        EXPECT_NE(recording_writer().file_named(m.path("trace00")), nullptr);
        EXPECT_NE(recording_writer().file_named(m.path("trace01")), nullptr);
        EXPECT_TRUE(std::filesystem::exists(m.path("text00")));
        EXPECT_TRUE(std::filesystem::exists(m.path("text01")));
    }
}

TEST(session, one_thread_without_the_remove_option_keeps_its_index)
{
    Traced_Machine m;
    m.signal({"start", m.path("trace0")});
    EXPECT_NE(recording_writer().file_named(m.path("trace00")), nullptr);
}

TEST(session, append_option_changes_no_name)
{
    replay::Machine_Shape shape = with_short_names(1, 1);
    shape.options = {PO_QTRACE_ENABLE_APPENDING_OF_THREAD_ID_TO_TRACE_FILE};
    Traced_Machine m(shape);
    m.start();
    EXPECT_NE(recording_writer().file_named(m.path("trace0")), nullptr);
}

// ---- names that do not fit --------------------------------------------------------------------------------

// `family` is "" for the binary trace, "txt" or "pte".
void start_family(Traced_Machine &m, const std::string &family, const std::string &base)
{
    if (family.empty())
        m.signal({"start", base});
    else
        m.signal({"start", m.path("f"), family, base});
}

void expect_too_long(Traced_Machine &m)
{
    EXPECT_EQ(m.errors().size(), 1u);
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Error in opening qtrace files!"));
    EXPECT_EQ(init, 0u);
    EXPECT_THAT(m.session_calls(), IsEmpty());
    EXPECT_EQ(recording_writer().open_files(), 0u);
    EXPECT_TRUE(std::filesystem::is_empty(m.folder()));
}

class File_Name : public testing::TestWithParam<std::string>
{
};

INSTANTIATE_TEST_SUITE_P(families, File_Name, testing::Values("", "txt", "pte"),
                         [](const auto &family) { return family.param.empty() ? "bin" : family.param; });

TEST_P(File_Name, that_just_fits_the_buffer_is_used_whole)
{
    Traced_Machine m;
    const std::string base = base_of_length(m, MAX_FILE_NAME - 1);
    start_family(m, GetParam(), base);
    EXPECT_EQ(init, 1u);
    EXPECT_THAT(m.errors(), IsEmpty());
    if (GetParam().empty())
        EXPECT_NE(recording_writer().file_named(base + "0"), nullptr);
    else
        EXPECT_TRUE(std::filesystem::exists(base + "0"));
}

TEST_P(File_Name, that_is_one_character_too_long_is_refused_with_an_error)
{
    Traced_Machine m;
    start_family(m, GetParam(), base_of_length(m, MAX_FILE_NAME));
    expect_too_long(m);
}

TEST_P(File_Name, that_is_much_too_long_is_refused_with_an_error)
{
    Traced_Machine m;
    start_family(m, GetParam(), m.path(std::string(5000, 'n')));
    expect_too_long(m);
}

TEST_P(File_Name, that_fits_only_with_a_one_digit_index_is_refused_on_a_machine_of_eleven_threads)
{
    Traced_Machine m(11, 1);
    start_family(m, GetParam(), base_of_length(m, MAX_FILE_NAME - 1));
    EXPECT_EQ(init, 0u);
    EXPECT_GE(m.errors().size(), 1u);
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Error in opening qtrace files!"));
}

TEST_P(File_Name, shortened_by_the_remove_option_is_measured_after_shortening)
{
    Traced_Machine m(with_short_names(1, 1));
    const std::string family = GetParam();
    start_family(m, family, base_of_length(m, MAX_FILE_NAME, ""));
    EXPECT_EQ(init, 1u);
    EXPECT_THAT(m.errors(), IsEmpty());
}

TEST(session, empty_name_on_a_machine_with_the_remove_option_is_handled)
{
    Traced_Machine m(with_short_names(1, 1));
    recording_writer().fail_open(1); // an empty name cannot be created
    m.signal({"start", ""});
    EXPECT_THAT(m.warnings(),
                ElementsAre("Can not open QTRACE file to write ", "QTRACE: Error in opening qtrace files!"));
    EXPECT_EQ(init, 0u);
}

// ---- files that cannot be created -------------------------------------------------------------------------

struct Failed_Open {
    size_t nth; // the call of QTRACE_Fopen that fails
    std::vector<QTRACE_FDESCR> closed;
    size_t left_open;
    friend std::ostream &operator<<(std::ostream &out, const Failed_Open &failure)
    {
        return out << "file " << failure.nth;
    }
};

class Binary_File : public testing::TestWithParam<Failed_Open>
{
};

INSTANTIATE_TEST_SUITE_P(that_cannot_be_created, Binary_File,
                         testing::Values(Failed_Open{1, {}, 0}, Failed_Open{2, {}, 1}, Failed_Open{3, {100}, 1},
                                         Failed_Open{4, {100, 101}, 1}),
                         [](const auto &failure) { return "number_" + std::to_string(failure.param.nth); });

TEST_P(Binary_File, closes_all_earlier_ones_but_the_last_opened)
{
    Traced_Machine m(2, 2);
    recording_writer().fail_open(GetParam().nth);
    m.start_with_everything();
    EXPECT_EQ(files_of(Kind::close), GetParam().closed);
    EXPECT_EQ(recording_writer().open_files(), GetParam().left_open);
    EXPECT_EQ(files_of(Kind::open).size(), GetParam().nth); // nothing is tried after the failure
    const std::string name = m.path("trace" + std::to_string(GetParam().nth - 1));
    EXPECT_THAT(m.warnings(),
                ElementsAre("Can not open QTRACE file to write " + name, "QTRACE: Error in opening qtrace files!"));
    EXPECT_THAT(m.warning_levels(), Each(2));
}

TEST_P(Binary_File, leaves_no_session_no_text_and_no_pte_file)
{
    Traced_Machine m(2, 2);
    recording_writer().fail_open(GetParam().nth);
    m.start_with_everything();
    EXPECT_EQ(init, 0u);
    EXPECT_NE(qfile_in_bin, nullptr);
    EXPECT_EQ(qfile_in_text, nullptr);
    EXPECT_EQ(qfile_in_pte, nullptr);
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(s1, nullptr);
    EXPECT_TRUE(std::filesystem::is_empty(m.folder()));
}

TEST_P(Binary_File, does_not_stand_in_the_way_of_the_next_start)
{
    Traced_Machine m(2, 2);
    recording_writer().fail_open(GetParam().nth);
    m.start();
    m.start();
    EXPECT_EQ(init, 1u);
    m.commit_run(2, 3);
    m.stop();
    EXPECT_EQ(m.order(3), "HRR");
}

TEST(session, descriptor_zero_is_a_descriptor_like_any_other)
{
    Traced_Machine m(1, 2);
    recording_writer().reset(0);
    m.start();
    EXPECT_EQ(init, 1u);
    m.commit_run(2, 0);
    m.stop();
    EXPECT_EQ(m.order(0), "HRR");
    EXPECT_THAT(files_of(Kind::close), ElementsAre(0, 1));
}

TEST(session, text_file_that_cannot_be_created_is_skipped_silently)
{
    Traced_Machine m(1, 3);
    std::filesystem::create_directory(m.path("text1"));
    m.start_with_text();
    ASSERT_NE(qfile_in_text, nullptr);
    EXPECT_NE(qfile_in_text[0], nullptr);
    EXPECT_EQ(qfile_in_text[1], nullptr);
    EXPECT_NE(qfile_in_text[2], nullptr);
    EXPECT_THAT(m.warnings(), IsEmpty());
    EXPECT_THAT(m.errors(), IsEmpty());
    for (int tid = 0; tid < 3; ++tid)
        m.commit_run(2, tid);
    m.signal({"pause"}); // writes a line wherever there is a text file
    m.stop();
    EXPECT_EQ(m.order(1), "HRR");
    EXPECT_THAT(m.file("text2"), HasSubstr("*** PAUSE"));
    EXPECT_EQ(m.warnings().size(), 0u);
}

TEST(session, pte_file_that_cannot_be_created_is_skipped_silently)
{
    Traced_Machine m(1, 2);
    m.signal({"start", m.path("trace"), "pte", m.path("no/such/folder/pte")});
    EXPECT_EQ(init, 1u);
    ASSERT_NE(qfile_in_pte, nullptr);
    EXPECT_EQ(qfile_in_pte[0], nullptr);
    EXPECT_EQ(qfile_in_pte[1], nullptr);
    EXPECT_THAT(m.warnings(), IsEmpty());
    m.stop();
    EXPECT_EQ(init, 0u);
}

TEST(session, start_empties_an_existing_text_file)
{
    Traced_Machine m;
    std::ofstream(m.path("text0")) << "old\n";
    m.start_with_text();
    m.stop();
    EXPECT_EQ(m.file("text0"), "");
}

// ---- tables -----------------------------------------------------------------------------------------------

TEST(session, start_makes_every_table_zeroed)
{
    Traced_Machine m(2, 2);
    m.start();
    for (int tid = 0; tid < 4; ++tid) {
        EXPECT_EQ(hdr_write[tid], 0u);
        EXPECT_EQ(root[tid], nullptr);
        EXPECT_EQ(last_commit[tid], nullptr);
        EXPECT_EQ(flush_seq[tid], 0u);
        EXPECT_EQ(flush[tid], nullptr);
        EXPECT_EQ(pre_execution[tid], nullptr);
        EXPECT_EQ(crack_inst[tid], nullptr);
        ASSERT_NE(flush_list[tid], nullptr);
        EXPECT_EQ(flush_list[tid]->list_index, 0);
        EXPECT_EQ(flush_list[tid]->list_size, DEFAULT_LIST_SIZE);
    }
    EXPECT_NE(flush_list[0], flush_list[1]);
    for (const Stack *stack : {s1, s2}) {
        ASSERT_NE(stack, nullptr);
        EXPECT_EQ(stack->stack_index, 0);
        EXPECT_EQ(stack->stack_size, DEFAULT_STACK_SIZE);
        EXPECT_NE(stack->stack, nullptr);
    }
    EXPECT_NE(s1, s2);
}

TEST(session, stop_frees_every_table)
{
    Traced_Machine m(1, 2);
    m.start_with_everything();
    m.commit_run(3, 1);
    m.stop();
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(qfile_in_bin, nullptr);
    EXPECT_EQ(qfile_in_text, nullptr);
    EXPECT_EQ(qfile_in_pte, nullptr);
    EXPECT_EQ(hdr_write, nullptr);
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(last_commit, nullptr);
    EXPECT_EQ(flush_seq, nullptr);
    EXPECT_EQ(flush, nullptr);
    EXPECT_EQ(pre_execution, nullptr);
    EXPECT_EQ(crack_inst, nullptr);
    EXPECT_EQ(flush_list, nullptr);
    EXPECT_EQ(s1, nullptr);
    EXPECT_EQ(s2, nullptr);
}

TEST(session, existing_tables_are_kept_when_the_tables_are_made_again)
{
    Traced_Machine m(1, 2);
    m.start();
    m.commit_run(1, 1);
    boolean *headers = hdr_write;
    List *list = flush_list[1];
    Node *first = root[1];
    Stack *stack = s1;
    hdr_write[0] = 1;
    free(flush_seq);
    flush_seq = nullptr;
    state_allocate_init();
    EXPECT_EQ(hdr_write, headers);
    EXPECT_EQ(hdr_write[0], 1u);
    EXPECT_EQ(flush_list[1], list);
    EXPECT_EQ(root[1], first);
    EXPECT_EQ(s1, stack);
    ASSERT_NE(flush_seq, nullptr);
    EXPECT_EQ(flush_seq[1], 0u);
}

TEST(session, start_leaves_the_header_to_the_first_record)
{
    Traced_Machine m;
    m.start();
    EXPECT_THAT(files_of(Kind::header), IsEmpty());
    m.stop();
    EXPECT_EQ(m.order(), ""); // a session without instructions leaves an empty file
}

TEST(session, each_session_begins_with_a_fresh_header)
{
    Traced_Machine m;
    for (int session = 0; session < 2; ++session) {
        m.start();
        m.commit_run(2);
        m.stop();
    }
    EXPECT_EQ(m.order(), "HRRHRR");
}

// ---- close ------------------------------------------------------------------------------------------------

TEST(session, pending_records_of_every_thread_are_in_the_files_after_stop)
{
    Traced_Machine m(2, 2);
    m.start();
    for (int tid = 0; tid < 4; ++tid)
        m.commit_run(static_cast<size_t>(tid), tid);
    EXPECT_EQ(m.records(3).size(), 2u);
    m.stop();
    for (int tid = 0; tid < 4; ++tid)
        EXPECT_EQ(m.records(tid).size(), static_cast<size_t>(tid));
}

TEST(session, stop_writes_the_pending_records_in_thread_order_and_closes_afterwards)
{
    Traced_Machine m(1, 3);
    m.start();
    for (int tid : {2, 0, 1})
        m.commit_run(1, tid);
    m.stop();
    std::string order;
    for (const Writer_Call &call : recording_writer().calls()) {
        order += "ocHR"[static_cast<int>(call.kind)];
        order += std::to_string(call.file - 100);
        order += ' ';
    }
    EXPECT_EQ(order, "o0 o1 o2 H0 R0 H1 R1 H2 R2 c0 c1 c2 ");
}

TEST(session, text_of_pending_instructions_is_in_the_file_after_stop)
{
    Traced_Machine m;
    m.start_with_text();
    m.commit_run(1);
    EXPECT_EQ(m.file("text0"), "");
    m.stop();
    EXPECT_EQ(m.text_lines().size(), 3u); // two header lines and the instruction
}

TEST(session, second_close_does_nothing)
{
    Traced_Machine m;
    m.start();
    m.commit_run(2);
    close_qfile();
    const size_t calls = recording_writer().calls().size();
    m.forget_output();
    close_qfile();
    EXPECT_EQ(recording_writer().calls().size(), calls);
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST(session, close_prints_nothing)
{
    Traced_Machine m;
    m.start_with_everything();
    m.commit_run(5);
    m.forget_output();
    close_qfile();
    EXPECT_THAT(m.messages(), IsEmpty());
    EXPECT_THAT(m.session_calls(), IsEmpty());
    EXPECT_EQ(recording_writer().open_files(), 0u);
}

TEST(session, close_frees_pieces_of_a_cracked_instruction_unwritten)
{
    Traced_Machine m;
    replay::Thread_Context context;
    context.cycle_mode = true;
    replay::host().set_context(0, context);
    m.start();
    m.commit({.seq = 1, .pc = 0x1000, .npc = 0x1004});
    m.commit({.seq = 2, .pc = 0x1004, .npc = 0x1004}); // a piece: its last one never comes
    EXPECT_NE(crack_inst[0], nullptr);
    m.stop();
    EXPECT_EQ(m.order(), "HR");
}

TEST(session, open_reports_success_and_failure)
{
    Traced_Machine m;
    EXPECT_EQ(open_qfile(m.path("trace").c_str(), nullptr, nullptr), 1);
    close_qfile();
    recording_writer().fail_open(1);
    EXPECT_EQ(open_qfile(m.path("trace").c_str(), nullptr, nullptr), 0);
}

TEST(session, pause_tables_outlive_sessions)
{
    Traced_Machine m(1, 2);
    m.start();
    m.signal({"pause", "cpu", "0", "thread", "1"});
    m.stop();
    EXPECT_EQ(paused[1], 1u);
    m.start();
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(paused[1], 1u);
}

} // namespace
