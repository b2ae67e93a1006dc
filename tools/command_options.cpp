#include "command_options.h"

#include <CLI/CLI.hpp>

namespace qtrace_tool
{

// A list ends with its commas: words after it are arguments.
static CLI::Option *separate(CLI::Option *option)
{
    return option->delimiter(',')->allow_extra_args(false);
}

Option *Option::required(bool required)
{
    option_->required(required);
    return this;
}

Option *Option::type_name(const std::string &name)
{
    option_->type_name(name);
    return this;
}

Option *Option::default_str(const std::string &text)
{
    option_->default_str(text);
    return this;
}

Option *Option::in_order()
{
    option_->trigger_on_parse();
    return this;
}

Option *Options::keep(CLI::Option *option)
{
    return &options_.emplace_back(option);
}

Option *Options::add_flag(const std::string &name, bool &value, const std::string &description)
{
    return keep(app_.add_flag(name, value, description));
}

Option *Options::add_option(const std::string &name, std::string &value, const std::string &description)
{
    return keep(app_.add_option(name, value, description));
}

Option *Options::add_arguments(const std::string &name, std::vector<std::string> &values,
                               const std::string &description)
{
    return keep(app_.add_option(name, values, description)->required());
}

Option *Options::add_repeated(const std::string &name, std::vector<std::string> &values,
                              const std::string &description)
{
    return keep(app_.add_option(name, values, description)->allow_extra_args(false));
}

Option *Options::add_list(const std::string &name, std::vector<std::string> &values, const std::string &description)
{
    return keep(separate(app_.add_option(name, values, description)));
}

Option *Options::add_numbers(const std::string &name, std::vector<uint32_t> &values, uint32_t first, uint32_t last,
                             const std::string &description)
{
    return keep(separate(app_.add_option(name, values, description))->check(CLI::Range(first, last)));
}

Option *Options::add_value(const std::string &name, const std::string &type, const std::string &description,
                           const Take &take)
{
    return keep(app_.add_option_function<std::string>(name, take, description)->type_name(type));
}

Option *Options::add_values(const std::string &name, const std::string &type, const std::string &description,
                            const Take &take)
{
    const auto take_all = [take](const std::vector<std::string> &values) {
        for (const std::string &value : values)
            take(value);
    };
    CLI::Option *option = app_.add_option_function<std::vector<std::string>>(name, take_all, description);
    return keep(separate(option)->type_name(type));
}

void Options::describe(const std::string &name, const std::string &description)
{
    app_.get_option(name)->description(description);
}

std::vector<std::string> Options::given() const
{
    std::vector<std::string> names;
    for (const CLI::Option *option : app_.get_options())
        if (option->count() > 0)
            names.push_back(option->get_name());
    return names;
}

} // namespace qtrace_tool
