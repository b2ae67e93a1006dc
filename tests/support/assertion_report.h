// What a fatal assertion of the plugin leaves on standard error, as a pattern for EXPECT_DEATH.
#pragma once

#include <string>
#include <string_view>

// The standard assertion report: place, plain function name (a pattern), expression word for word.
inline std::string assertion_report(std::string_view function, std::string_view expression)
{
    std::string pattern = "[a-z_]+\\.cpp:[0-9]+: (" + std::string(function) + "): Assertion `";
    for (const char letter : expression) {
        if (std::string_view("()[]*+?.|^$\\").find(letter) != std::string_view::npos)
            pattern += '\\';
        pattern += letter;
    }
    return pattern + "' failed\\.";
}

inline constexpr std::string_view TID_IN_RANGE = "tid < processor_num * thread_num";
inline constexpr std::string_view PAUSED_EXISTS = "paused != ((void *)0)";
inline constexpr std::string_view COMMIT_ACTION_EXISTS = "commit_action != ((void *)0)";
inline constexpr std::string_view NOTHING_DEFERRED = "commit_action[tid] == ((void *)0)";
