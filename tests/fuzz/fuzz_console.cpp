// Whatever is typed, the console answers; a failed line has a message.

#include "command_words.h"
#include "console.h"
#include "stream_reader.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <vector>

using namespace replay;

namespace
{

constexpr const char *STREAM = "{\"t\":\"machine\",\"processors\":1,\"threads\":1}\n"
                               "{\"t\":\"commit\",\"seq\":1}\n"
                               "{\"t\":\"commit\",\"seq\":2}\n"
                               "{\"t\":\"commit\",\"tid\":7}\n";

const std::string &stream_file()
{
    static const std::string name = [] {
        std::string file = std::filesystem::temp_directory_path() / ("fuzz_console_" + std::to_string(getpid()));
        std::ofstream(file) << STREAM;
        return file;
    }();
    return name;
}

// What the stream holds, read once: a thread that reads it for every input would take most of the time.
class Events_Again : public Event_Source
{
public:
    const Stream_Event *next() override { return at_ < read().events.size() ? &read().events[at_++] : nullptr; }
    const std::optional<Stream_Error> &error() const override
    {
        static const std::optional<Stream_Error> none;
        return at_ < read().events.size() ? none : read().error;
    }
    uint64_t line_number() const override { return at_; }
    uint64_t bytes_used() const override { return at_; }
    std::optional<uint64_t> input_size() const override { return read().events.size(); }

private:
    struct Events {
        std::vector<Stream_Event> events;
        std::optional<Stream_Error> error;
    };
    static const Events &read()
    {
        static const Events events = [] {
            Events all;
            Stream_Reader reader(stream_file());
            while (const Stream_Event *event = reader.next())
                all.events.push_back(*event);
            all.error = reader.error();
            return all;
        }();
        return events;
    }

    size_t at_ = 0;
};

// Loading whatever file is named would run its code.
bool loads_something(const std::string &line)
{
    const auto words = split_words(line).words;
    return words.size() > 1 && words[0] == "plugin" && words[1] == "load";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Player player(stream_file(), std::make_unique<Events_Again>());
    std::ostringstream out, err;
    Console console(player, out, err);
    std::istringstream lines(std::string(reinterpret_cast<const char *>(data), size));
    for (std::string line; !console.quitting() && std::getline(lines, line);) {
        bool wants_file;
        console.completions(line, wants_file);
        if (loads_something(line))
            continue;
        err.str("");
        if (console.execute(line) != (err.str().empty() || err.str().starts_with("note: ")))
            std::abort();
    }
    return 0;
}
