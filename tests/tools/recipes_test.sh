#!/bin/sh
# recipes_test.sh SOURCE REPLAY PLUGIN: follows the recipes of CONTRIBUTING.md in a copy of the tree: a subcommand is a
# file and a row, an output format a file, a trace invariant a row, and so is what the tools know of a translation mode.
set -eu
source=$1 replay=$2 plugin=$3
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

sed -i 's|^    /\* 38 \*/ {"Unknown", {3, 3}},|    {"Z9_New", {3, 0}},\n&|' qtrace/lib/address_view.cpp

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DQT_TESTS=OFF -DQT_BENCHMARKS=OFF >/dev/null
cmake --build build --target qtrace >log || { cat log; exit 1; }
tool=build/bin/qtrace
trace=$source/tests/golden/format/address-wraps.trace
test "$($tool greet)" = greetings
$tool --help | grep -q '^  greet'
$tool check --rules | grep -q '^word-zero  *the instruction word is 0$'
test "$($tool dump --format words "$trace" | grep -c '^[0-9a-f]\{8\}$')" -gt 0

# A text trace that names the new mode instead of the one that it translates like.
mkdir session && cp "$plugin" session/plugin_qtbin.so
(cd session && "$replay" "$source/tests/golden/host_radix/stream.jsonl" "$source/tests/golden/host_radix/console" >log)
grep -q Z7_HostRadixSingleLevel session/text0
sed 's/Z7_HostRadixSingleLevel\b/Z9_New/g' session/text0 >session/new0
$tool check --text session/new0 session/trace0 | grep -q 'all invariants hold$'
sed 's/Z7_HostRadixSingleLevel\b/Z9_Newer/g' session/text0 >session/newer0
$tool check --text session/newer0 session/trace0 | grep -q 'text-instruction-mode'
