"""Puts all single-token changes of C++ sources into them at once, so that one build serves for all mutants. Each change has a
number; QT_MUTANT in the environment of a program is the one in force. QT_MUTANTS_REACHED names a file with a byte for each
number: there a program notes which changes it came by (1), and which would have given another value (3).

What the compiler evaluates is never changed. An operator becomes an infix: `a < mutant::Less<7>{} < b` keeps precedence and
order of evaluation; only conditions with && and || are written once for each change."""

import re

import mutant_generator

NAMES = {"<": "Less", "<=": "Less_Equal", ">": "Greater", ">=": "Greater_Equal", "==": "Equal", "!=": "Unequal",
         "+": "Plus", "-": "Minus", "*": "Times", "/": "Divided", "%": "Modulo", "&": "And", "|": "Or", "^": "Xor",
         "<<": "Left", ">>": "Right", "+=": "Add", "-=": "Subtract", "|=": "Set", "&=": "Keep"}  # fmt: skip
ASSIGNMENTS = ("+=", "-=", "|=", "&=")
PIECE = re.compile(mutant_generator.CPP_TOKEN.pattern + r"| (?P<punctuation>[()\[\]{},;?:.]) | (?P<blank>\s+) | (?P<other>.)",
                   re.VERBOSE | re.DOTALL)  # fmt: skip
NUMBER = re.compile(r"mutant::(?:\w+<|is\()(\d+)")
CLOSING = {")": "(", "]": "[", "}": "{"}
BEFORE_A_CONDITION = {"(", "[", "{", ",", ";", "=", "+=", "-=", "|=", "&=", "return", "?", ":"}
AFTER_A_CONDITION = {")", "]", "}", ",", ";", "?", ":"}

HEADER = """#pragma once
#if __cplusplus >= 202002L // CMake tries the compiler without
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace mutant
{

struct State {
    int chosen = 0;
    unsigned char *reached = nullptr;

    State()
    {
        if (const char *number = getenv("QT_MUTANT"))
            chosen = atoi(number);
        const char *name = getenv("QT_MUTANTS_REACHED");
        const int descriptor = name != nullptr ? open(name, O_RDWR | O_CLOEXEC) : -1;
        struct stat info;
        if (descriptor < 0)
            return;
        if (fstat(descriptor, &info) == 0) {
            void *bytes = mmap(nullptr, info.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
            reached = bytes != MAP_FAILED ? static_cast<unsigned char *>(bytes) : nullptr;
        }
        close(descriptor);
    }
};

inline const State state;

inline void note(int number, bool differs = true)
{
    if (state.reached != nullptr)
        state.reached[number] |= differs ? 3 : 1;
}

inline bool chosen(int number)
{
    note(number);
    return state.chosen == number;
}

constexpr bool is(int number) { return std::is_constant_evaluated() ? false : chosen(number); }

template <int ID, class T> constexpr T number(T value)
{
    if (std::is_constant_evaluated())
        return value;
    if (chosen(ID))
        return static_cast<T>(value + 1);
    return value > 0 && chosen(ID + 1) ? static_cast<T>(value - 1) : value;
}

template <int ID> constexpr bool flag(bool value) { return is(ID) ? !value : value; }

template <int ID> struct Not {};
template <int ID, class T> constexpr bool operator->*(Not<ID>, const T &value)
{
    return is(ID) ? static_cast<bool>(value) : !static_cast<bool>(value);
}

template <int ID> struct Increment {};
template <int ID, class T> constexpr T &operator->*(Increment<ID>, T &value) { return is(ID) ? --value : ++value; }
template <int ID> struct Decrement {};
template <int ID, class T> constexpr T &operator->*(Decrement<ID>, T &value) { return is(ID) ? ++value : --value; }
template <int ID> struct Increment_After {};
template <int ID, class T> constexpr T operator->*(T &value, Increment_After<ID>) { return is(ID) ? value-- : value++; }
template <int ID> struct Decrement_After {};
template <int ID, class T> constexpr T operator->*(T &value, Decrement_After<ID>) { return is(ID) ? value++ : value--; }
"""

BINARY = """
template <int ID> struct NAME {};
template <int ID, class L> struct NAME_With { const L &left; };
template <int ID, class L> constexpr auto operator OP(const L &left, NAME<ID>) { return NAME_With<ID, L>{left}; }
template <int ID, class L, class R> constexpr auto operator OP(NAME_With<ID, L> with, const R &right)
{
    using T = std::decay_t<decltype(with.left OP right)>;
    if (!std::is_constant_evaluated()) {ALTERNATIVES
    }
    return static_cast<T>(with.left OP right);
}
"""
ALTERNATIVE = """
        if constexpr (requires { static_cast<T>(with.left OTHER right); }) {
            if constexpr (requires(T value) { value != value; }) {
                if (state.reached != nullptr)
                    note(ID + I, CONDITION(static_cast<T>(with.left OP right) != static_cast<T>(with.left OTHER right)));
            } else
                note(ID + I);
            if (state.chosen == ID + I)
                return static_cast<T>(with.left OTHER right);
        }"""
ASSIGNMENT = """
template <int ID> struct NAME {};
template <int ID, class R> struct NAME_With { const R &right; };
template <int ID, class R> constexpr auto operator OP(NAME<ID>, const R &right) { return NAME_With<ID, R>{right}; }
template <int ID, class L, class R> constexpr L &operator OP(L &left, NAME_With<ID, R> with)
{
    if (!std::is_constant_evaluated()) {ALTERNATIVES
    }
    left OP with.right;
    return left;
}
"""
ASSIGNED = """
        if constexpr (requires { left OTHER with.right; })
            if (chosen(ID + I)) {
                left OTHER with.right;
                return left;
            }"""


def header():
    text = HEADER
    for operator, name in NAMES.items():
        form, alternative = (ASSIGNMENT, ASSIGNED) if operator in ASSIGNMENTS else (BINARY, ALTERNATIVE)
        alternatives = "".join(
            alternative.replace("OTHER", other).replace("ID + I", f"ID + {i}")
            .replace("CONDITION", "right != 0 && " if other in ("/", "%") else "")
            for i, other in enumerate(mutant_generator.CPP_BINARY[operator]))  # fmt: skip
        text += form.replace("ALTERNATIVES", alternatives).replace("NAME", name).replace("OP", operator)
    return text + "\n} // namespace mutant\n#endif\n"


class Source:
    """`numbers`: of each change that is to be put in."""

    def __init__(self, text, numbers):
        self.pieces = [(match.lastgroup, match[0], match.start()) for match in PIECE.finditer(text)]
        starts = [0]
        for line in text.splitlines(keepends=True):
            starts.append(starts[-1] + len(line))
        self.changes = {}  # position -> changes of the token there
        for change in numbers:
            self.changes.setdefault(starts[change.line - 1] + change.column, []).append(change)
        self.numbers = numbers
        self.written = set()  # pieces that stand within a condition which is written once for each change
        self.partner = self.find_partners()

    def find_partners(self):
        partner, open_ones = {}, []
        for at, (kind, text, _) in enumerate(self.pieces):
            if kind == "punctuation" and text in "([{":
                open_ones.append(at)
            elif kind == "punctuation" and text in CLOSING:
                begin = open_ones.pop()
                assert self.pieces[begin][1] == CLOSING[text]
                partner[begin], partner[at] = at, begin
        return partner

    def switched(self):
        return self.part(0, len(self.pieces))

    def part(self, begin, end):
        conditions = self.conditions(begin, end)
        out = []
        at = begin
        while at < end:
            if at in conditions:
                until, operators = conditions[at]
                out.append(self.condition(at, until, operators))
                at = until
            else:
                out.append(self.piece(at))
                at += 1
        return "".join(out)

    def conditions(self, begin, end):
        """First piece -> end, and the && and || at the top of it."""
        found = {}
        for at in range(begin, end):
            if self.pieces[at][1] in ("&&", "||") and self.pieces[at][2] in self.changes and at not in self.written:
                first, until = self.extent(at)
                if begin <= first and until <= end:
                    found.setdefault(first, (until, []))[1].append(at)
        return found

    def extent(self, at):
        """Begin and end of the condition in which the piece is."""
        begin = at - 1
        while self.pieces[begin][1] not in BEFORE_A_CONDITION:
            begin = self.partner.get(begin, begin) - 1
        end = at + 1
        while self.pieces[end][1] not in AFTER_A_CONDITION:
            end = self.partner.get(end, end) + 1
        begin += 1
        while self.pieces[begin][0] == "blank" or self.is_comment(begin):
            begin += 1
        return begin, end

    def is_comment(self, at):
        return self.pieces[at][1].startswith(("//", "/*"))

    def condition(self, begin, end, operators):
        changed = []
        for at in operators:
            self.written.add(at)
            for change in self.changes[self.pieces[at][2]]:
                changed.append(f"mutant::is({self.numbers[change]}) ? static_cast<bool>({self.plain(begin, end, at, change)}) : ")
        return "(" + "".join(changed) + "static_cast<bool>(" + self.part(begin, end) + "))"

    def plain(self, begin, end, changed, change):
        """The pieces on one line, one of them changed."""
        words = []
        for at in range(begin, end):
            kind, text, _ = self.pieces[at]
            if at == changed:
                text = change.replacement
            elif self.is_comment(at):
                text = " "
            words.append(text.replace("\n", " ") if kind == "blank" else text)
        return "".join(words)

    def piece(self, at):
        _, text, position = self.pieces[at]
        if position not in self.changes or text in ("&&", "||", "break", "continue"):
            return text
        number = self.numbers[self.changes[position][0]]
        if self.pieces[at][0] == "number":
            return f"mutant::number<{number}>({text})"
        if text in ("true", "false"):
            return f"mutant::flag<{number}>({text})"
        if text in NAMES:
            return f"{text} mutant::{NAMES[text]}<{number}>{{}} {text}"
        return self.unary(at, text, number)

    def unary(self, at, text, number):
        before, after = self.pieces[at - 1], self.pieces[at + 1]
        begins = before[0] == "blank" or before[1] in ("(", "[", "{", ",")
        if text == "!":
            return f"mutant::Not<{number}>{{}} ->* " if begins else text
        name = "Increment" if text == "++" else "Decrement"
        if begins:
            return f"mutant::{name}<{number}>{{}} ->* " if after[0] == "word" or after[1] == "(" else text
        return f" ->* mutant::{name}_After<{number}>{{}}" if self.is_whole_operand_before(at) else text

    def is_whole_operand_before(self, at):
        """Whether the operand of a postfix operator is all that stands before it, so that none of its own binds less."""
        first = at
        while self.pieces[first - 1][0] != "blank" and self.pieces[first - 1][1] not in ("(", "[", "{", ","):
            first = self.partner.get(first - 1, first - 1)
        return first < at and (self.pieces[first][0] == "word" or self.pieces[first][1] == "(")


def numbers_in(line):
    """Of the changes in a line of a switched source."""
    return {int(number) for number in NUMBER.findall(line)}
