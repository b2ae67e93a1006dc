// Options of a subcommand. The library that parses them is known to command_options.cpp and tool_command.cpp alone: its
// header takes longer to compile than a whole subcommand.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace qtrace_tool
{

class Option
{
public:
    explicit Option(CLI::Option *option) : option_(option) {}
    Option *required(bool required = true);
    // What the help calls the value.
    Option *type_name(const std::string &name);
    Option *default_str(const std::string &text);
    // It may be repeated, and each value is taken where it stands among those of the other options of this kind.
    Option *in_order();

private:
    CLI::Option *option_;
};

// Variables are set while the command line is parsed, and must live until then; descriptions are copied.
class Options
{
public:
    using Take = std::function<void(const std::string &value)>;

    explicit Options(CLI::App &app) : app_(app) {}

    Option *add_flag(const std::string &name, bool &value, const std::string &description);
    Option *add_option(const std::string &name, std::string &value, const std::string &description);
    // A positional argument that takes all words left, at least one.
    Option *add_arguments(const std::string &name, std::vector<std::string> &values,
                          const std::string &description);
    // One value; the option may be repeated.
    Option *add_repeated(const std::string &name, std::vector<std::string> &values, const std::string &description);
    // Values separated by commas; the option may be repeated.
    Option *add_list(const std::string &name, std::vector<std::string> &values, const std::string &description);
    // Numbers separated by commas, each within both ends.
    Option *add_numbers(const std::string &name, std::vector<uint32_t> &values, uint32_t first, uint32_t last,
                        const std::string &description);
    // `take` gets the value, or each of several separated by commas, and throws Usage_Error for a wrong one.
    Option *add_value(const std::string &name, const std::string &type, const std::string &description,
                      const Take &take);
    Option *add_values(const std::string &name, const std::string &type, const std::string &description,
                       const Take &take);

    // Another description of an option declared before.
    void describe(const std::string &name, const std::string &description);
    // What the command line has of them, by their names in the help.
    std::vector<std::string> given() const;

private:
    Option *keep(CLI::Option *option);

    CLI::App &app_;
    std::deque<Option> options_;
};

} // namespace qtrace_tool
