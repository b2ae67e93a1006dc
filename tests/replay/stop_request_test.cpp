// The request to stop by itself: when it is there, and what it wakes.

#include "stop_request.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <unistd.h>

using replay::Stop_Request;

namespace
{

// Standard input is closed as long as one lives, so that the next descriptor is number 0.
struct Without_Standard_Input {
    int kept = dup(STDIN_FILENO);
    Without_Standard_Input() { close(STDIN_FILENO); }
    ~Without_Standard_Input()
    {
        dup2(kept, STDIN_FILENO);
        close(kept);
    }
};

struct Pipe {
    int ends[2];
    Pipe() { EXPECT_EQ(pipe(ends), 0); }
    ~Pipe()
    {
        close(ends[0]);
        close(ends[1]);
    }
};

} // namespace

TEST(stop_request, is_there_until_it_is_forgotten)
{
    Stop_Request stop;
    EXPECT_FALSE(stop.requested());
    stop.request();
    stop.request();
    EXPECT_TRUE(stop.requested());
    stop.forget();
    EXPECT_FALSE(stop.requested());
    stop.forget(); // nothing is there to be forgotten, and nothing is waited for
    EXPECT_FALSE(stop.requested());
}

TEST(stop_request, leaves_the_error_of_the_call_that_it_interrupts)
{
    Stop_Request stop;
    errno = EDOM;
    stop.request();
    EXPECT_EQ(errno, EDOM);
}

TEST(stop_request, input_that_is_there_is_not_waited_for_and_a_request_comes_before_it)
{
    const Pipe input;
    Stop_Request stop;
    ASSERT_EQ(write(input.ends[1], "x", 1), 1);
    EXPECT_TRUE(stop.wait_for_input(input.ends[0]));
    stop.request();
    EXPECT_FALSE(stop.wait_for_input(input.ends[0]));
    stop.forget();
    EXPECT_TRUE(stop.wait_for_input(input.ends[0]));
}

TEST(stop_request, needs_no_standard_input)
{
    const Without_Standard_Input nothing;
    Stop_Request stop;
    stop.request();
    EXPECT_TRUE(stop.requested());
}
