#!/bin/sh
# recipes_test.sh SOURCE: follows the recipes of CONTRIBUTING.md in a copy of the tree: a subcommand is a file and a row,
# an output format a file, a trace invariant a row.
set -eu
source=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/tree"
(cd "$source" && tar -cf - CMakeLists.txt cmake include qtrace tools common replay) | tar -xf - -C "$folder/tree"
cd "$folder/tree"

cat > tools/commands/greet_command.cpp <<'END'
#include "tool_command.h"

namespace qtrace_tool
{
namespace
{
class Greet_Command : public Command
{
public:
    void declare(Options &) override {}
    void run(Tool_Run &run) override { run.out.put("greetings\n"); }
};
} // namespace

std::unique_ptr<Command> make_greet_command()
{
    return std::make_unique<Greet_Command>();
}
} // namespace qtrace_tool
END
sed -i 's|^    ROW(info,|    ROW(greet, "greets", "qtrace greet", "qtrace greet --json") \\\n&|' tools/tool_command.cpp

cat > tools/views/formats/words.cpp <<'END'
#include "item_view.h"

namespace qtrace_tool
{
namespace
{
class Words_View : public Item_View
{
public:
    void begin(Output &, bool) const override {}
    void header(Output &, const QTRACE_Item &, const Item_Notes &) const override {}
    void record(Output &out, const QTRACE_Item &item, const Item_Notes &) const override
    {
        out.put_hex(item.record.header.instruction, 8);
        out.put('\n');
    }
};
} // namespace

std::unique_ptr<Item_View> make_words_view(const std::string &, const Field_Selection &)
{
    return std::make_unique<Words_View>();
}
} // namespace qtrace_tool
END

sed -i 's|^const Record_Rule RECORD_RULES\[\] = {|&\n    {"word-zero", "the instruction word is 0", "", [](const Record_View \&v) { return v.record.header.instruction == 0; }},|' \
    tools/checks/check_rules.cpp

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DQT_TESTS=OFF -DQT_BENCHMARKS=OFF >/dev/null
cmake --build build --target qtrace >log || { cat log; exit 1; }
tool=build/bin/qtrace
trace=$source/tests/golden/format/address-wraps.trace
test "$($tool greet)" = greetings
$tool --help | grep -q '^  greet'
$tool check --rules | grep -q '^word-zero  *the instruction word is 0$'
test "$($tool dump --format words "$trace" | grep -c '^[0-9a-f]\{8\}$')" -gt 0
