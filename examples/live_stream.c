/* A program that writes a commit stream while it runs, into a pipe:
 *
 *     live_stream 1000 | replay - SCRIPT
 *
 * A loop of three instructions counts down a register and stores it, as a simulator would report it. */
#include "commit_stream_writer.h"

#include <stdlib.h>

enum { REAL_MODE = 11, LOOP = 0x1000, COUNTER = 3, TABLE = 0x20000 };

/* One instruction at `pc`; translation is off, so real addresses are effective ones. */
static void begin(commit_stream *stream, uint64_t seq, uint64_t pc, uint64_t npc, uint32_t op, const char *text)
{
    commit_stream_address fetch = {0};
    fetch.mode = REAL_MODE;
    fetch.ra = pc;
    commit_stream_begin_commit(stream, 0, seq, pc, npc, op);
    commit_stream_text(stream, text);
    commit_stream_fetch(stream, &fetch);
}

static void turn(commit_stream *stream, uint64_t seq, uint64_t count)
{
    commit_stream_address data = {0};
    const uint64_t ea = TABLE + 8 * count;
    data.mode = REAL_MODE;
    data.ra = ea;
    begin(stream, seq, LOOP, LOOP + 4, 0x3863ffff, "addi r3,r3,-1");
    commit_stream_in(stream, COMMIT_STREAM_GPR, COUNTER, count + 1, 0);
    commit_stream_out(stream, COMMIT_STREAM_GPR, COUNTER, count, 0);
    commit_stream_end(stream);
    begin(stream, seq + 1, LOOP + 4, LOOP + 8, 0x7c64292a, "stdx r3,r4,r5");
    commit_stream_is(stream, COMMIT_STREAM_STORE);
    commit_stream_data(stream, &ea, &data);
    commit_stream_in(stream, COMMIT_STREAM_GPR, COUNTER, count, 0);
    commit_stream_end(stream);
    begin(stream, seq + 2, LOOP + 8, LOOP, 0x4bfffff8, "b 0x1000");
    commit_stream_is(stream, COMMIT_STREAM_BRANCH | COMMIT_STREAM_UNCONDITIONAL | COMMIT_STREAM_TAKEN);
    commit_stream_end(stream);
    commit_stream_flush(stream); /* the reader sees each turn when it is made */
}

int main(int argc, char **argv)
{
    const uint64_t turns = argc > 1 ? strtoull(argv[1], NULL, 10) : 10;
    commit_stream_machine machine = {0};
    commit_stream_context context = {0};
    const char *problem;
    uint64_t n;
    commit_stream *stream = commit_stream_open("-");
    if (!stream)
        return 1;
    machine.processors = machine.threads = 1;
    machine.memory = 1 << 28;
    machine.source = "live_stream";
    commit_stream_write_machine(stream, &machine);
    context.bit64 = context.kernel = 1;
    commit_stream_write_context(stream, 0, &context);
    for (n = 0; n < turns; ++n)
        turn(stream, 3 * n + 1, turns - n - 1);
    problem = commit_stream_close(stream);
    if (problem)
        fprintf(stderr, "live_stream: %s\n", problem);
    return problem != NULL;
}
