"""Every single-token change of a source file that could be a mistake, found by a tokenizer: a comparison that is another
one, arithmetic and logical operators exchanged, a missing negation, a number one off, true for false.

C++ sources are taken as clang-format leaves them: a binary operator has blanks on both sides, a template bracket or a
reference has not."""

import io
import re
import tokenize
from typing import NamedTuple

COMPARISONS = {"<": ("<=", ">"), "<=": ("<", "=="), ">": (">=", "<"), ">=": (">", "=="), "==": ("!=",), "!=": ("==",)}
ARITHMETIC = {"+": ("-",), "-": ("+",), "*": ("+",), "/": ("*",), "%": ("/",), "+=": ("-=", "="), "-=": ("+=", "=")}
BITS = {"&": ("|",), "|": ("&",), "^": ("&",), "<<": (">>",), ">>": ("<<",), "|=": ("&=", "="), "&=": ("|=", "=")}
CPP_BINARY = COMPARISONS | ARITHMETIC | BITS | {"&&": ("||",), "||": ("&&",)}
CPP_WORDS = {"true": ("false",), "false": ("true",), "break": ("continue",), "continue": ("break",)}
CPP_UNARY = {"!": ("",), "++": ("--",), "--": ("++",)}
PYTHON_OPERATORS = COMPARISONS | ARITHMETIC | BITS | {"//": ("*",)}
PYTHON_WORDS = {"and": ("or",), "or": ("and",), "True": ("False",), "False": ("True",), "not": ("",),
                "is": ("is not",), "break": ("continue",), "continue": ("break",)}  # fmt: skip

CPP_TOKEN = re.compile(r"""
    (?P<skipped>//[^\n]*|/\*.*?\*/|R"(?P<mark>\w*)\((?:.|\n)*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*')
  | (?P<number>\b(?:0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*(?:\.[0-9]*)?)[uUlLzZ]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|->|::|\+\+|--|&&|\|\||[-+*/%&|^<>=!]=|<<|>>|[-+*/%&|^<>=!~])
""", re.VERBOSE | re.DOTALL)  # fmt: skip


class Change(NamedTuple):
    file: str  # relative to the root
    line: int  # from 1
    column: int  # from 0
    token: str
    replacement: str

    def apply(self, source):
        lines = source.splitlines(keepends=True)
        text = lines[self.line - 1]
        assert text[self.column :].startswith(self.token), self
        lines[self.line - 1] = text[: self.column] + self.replacement + text[self.column + len(self.token) :]
        return "".join(lines)

    def key(self, source):
        """What names the change wherever the line moves to: the file, the line and what becomes of it."""
        return self.file, source.splitlines()[self.line - 1].strip(), self.apply(source).splitlines()[self.line - 1].strip()

    def key_in_place(self, source):
        """The key and the line before, which tells equal lines of a file apart."""
        return *self.key(source), source.splitlines()[self.line - 2].strip() if self.line > 1 else ""


def other_numbers(token):
    """One more and one less than a whole number, in its notation."""
    digits = re.fullmatch(r"(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlLzZ]*)", token)
    if not digits:
        return ()
    value = int(digits[1].replace("'", ""), 0 if digits[1][:2].lower() in ("0x", "0b") else 10)
    form = hex if digits[1][:2].lower() == "0x" else str
    return tuple(form(other) + digits[2] for other in (value + 1, value - 1) if other >= 0)


def is_binary(text, begin, end):
    return text[begin - 1 : begin] == " " and text[end : end + 1] in (" ", "\n") and text[:begin].strip() != ""


def cpp_replacements(kind, token, line, begin, end):
    if kind == "number":
        return other_numbers(token)
    if kind == "word":
        return CPP_WORDS.get(token, ())
    if kind == "operator" and token in CPP_BINARY and is_binary(line, begin, end):
        return CPP_BINARY[token]
    if kind == "operator" and token in CPP_UNARY:
        return CPP_UNARY[token]
    return ()


def is_code(line):
    return not re.match(r"\s*(#|static_assert|template|using|namespace|TEST)", line)


def cpp_changes(file, source):
    starts = [0]
    for line in source.splitlines(keepends=True):
        starts.append(starts[-1] + len(line))
    lines = source.splitlines(keepends=True)
    number = 0
    for match in CPP_TOKEN.finditer(source):
        while starts[number + 1] <= match.start():
            number += 1
        begin, end = match.start() - starts[number], match.end() - starts[number]
        if match.lastgroup == "skipped" or not is_code(lines[number]):
            continue
        for replacement in cpp_replacements(match.lastgroup, match[0], lines[number], begin, end):
            yield Change(file, number + 1, begin, match[0], replacement)


def python_changes(file, source):
    for token in tokenize.generate_tokens(io.StringIO(source).readline):
        replacements = ()
        if token.type == tokenize.NUMBER:
            replacements = other_numbers(token.string)
        elif token.type == tokenize.OP:
            replacements = PYTHON_OPERATORS.get(token.string, ())
        elif token.type == tokenize.NAME:
            replacements = PYTHON_WORDS.get(token.string, ())
        if is_code(token.line) and not token.line.lstrip().startswith(("def ", "import ", "from ", "@")):
            for replacement in replacements:
                yield Change(file, token.start[0], token.start[1], token.string, replacement)


def changes(file, source):
    return list((python_changes if file.endswith(".py") else cpp_changes)(file, source))
