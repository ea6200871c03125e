"""Finds the mutants of C++ sources: small changes, each of which a good test suite should notice.

The syntax tree says where they may lie, so that none is in a comment, in a declaration that means nothing at
run time, or in the middle of a macro. Each is one edit of the text: bytes `start` to `end` become `new`.
"""

import bisect
import collections
import dataclasses
import hashlib
import json
import re
import shlex
import zlib
from pathlib import Path

try:
    from clang import cindex
except ImportError:  # told by the caller, who knows what to do about it
    cindex = None

OPERATORS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
    "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=",
    "&&": "||", "||": "&&",
    "&": "|", "|": "&", "^": "&", "<<": ">>", ">>": "<<", "&=": "|=", "|=": "&=", "^=": "&=",
    "<<=": ">>=", ">>=": "<<=",
}  # fmt: skip
COMPARISONS = ("==", "!=", "<", "<=", ">", ">=")
LEVELS = {"ZLOGD": "ZLOGI", "ZLOGI": "ZLOGW", "ZLOGW": "ZLOGE", "ZLOGE": "ZLOGW", "ZLOGF": "ZLOGE"}
FOLDERS = ("source", "include_internal")
WORD = re.compile(r"(?<![%\\A-Za-z])[A-Za-z]{3,}")
CONVERSION = re.compile(r"%(?!%)[-+ #0]*(?:\*|\d+)?(?:\.(?:\*|\d+))?((?:hh|h|ll|l|j|z|t|L)?[a-zA-Z])")
INTEGER = re.compile(r"(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlLzZ]*)")
STRING = re.compile(r'((?:u8|u|U|L)?)(R?)"(.*)"', re.DOTALL)


class ParseError(Exception):
    """A source that libclang does not understand."""


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    start: int
    end: int
    new: str
    kind: str
    change: str  # in words, for people and as a part of the key
    line: int
    text: str  # the line, trimmed
    statement: tuple  # first and last line of what a coverage run would count
    function: tuple  # first and last line of the function around it; empty outside of one
    units: tuple  # the translation units that it is a part of
    ident: str = ""

    @property
    def key(self):
        """What it is known by, however many lines are added above it."""
        return (self.file, self.text, self.change)

    def apply(self, content):
        return content[: self.start] + self.new.encode() + content[self.end :]


def enumerate_mutants(tree, compile_commands):
    """All mutants of the sources below `tree`, ordered by place; `compile_commands` is the build's file."""
    found = {}
    units = collections.defaultdict(set)
    for command in json.loads(Path(compile_commands).read_text()):
        unit = Path(command["file"])
        if not unit.is_relative_to(tree) or unit.relative_to(tree).parts[0] not in FOLDERS:
            continue
        name = str(unit.relative_to(tree))
        for mutant in _Unit(tree, unit, command["command"]).mutants():
            edit = (mutant.file, mutant.start, mutant.end, mutant.new)
            found.setdefault(edit, mutant)
            units[mutant.file].add(name)
    ordered = [mutant for _, mutant in sorted(found.items())]
    return _named([dataclasses.replace(one, units=tuple(sorted(units[one.file]))) for one in ordered])


def _named(mutants):
    """Gives each an identifier that stays the same while only other lines change."""
    seen = collections.Counter()
    named = []
    for mutant in mutants:
        text = "\0".join((*mutant.key, str(seen[mutant.key])))
        seen[mutant.key] += 1
        named.append(dataclasses.replace(mutant, ident=hashlib.sha256(text.encode()).hexdigest()[:8]))
    return named


def shuffled(mutants, seed):
    """In the order of the sample that this seed draws."""
    return sorted(mutants, key=lambda mutant: hashlib.sha256(f"{seed}:{mutant.ident}".encode()).digest())


@dataclasses.dataclass(frozen=True)
class _Token:
    start: int
    end: int
    text: str
    literal: bool
    word: bool


class _File:
    """One source text with its tokens."""

    def __init__(self, tree, name, unit):
        self.name = name
        path = str(tree / name)
        self.content = (tree / name).read_bytes()
        self._starts = [0] + [at.end() for at in re.finditer(b"\n", self.content)]
        file = unit.get_file(path)
        extent = cindex.SourceRange.from_locations(
            cindex.SourceLocation.from_offset(unit, file, 0),
            cindex.SourceLocation.from_offset(unit, file, len(self.content)),
        )
        kinds = cindex.TokenKind
        self.tokens = [
            _Token(
                token.extent.start.offset,
                token.extent.end.offset,
                token.spelling,
                token.kind == kinds.LITERAL,
                token.kind in (kinds.IDENTIFIER, kinds.KEYWORD),
            )
            for token in unit.get_tokens(extent=extent)
            if token.kind != kinds.COMMENT
        ]
        self._token_starts = [token.start for token in self.tokens]
        self.macros = {}  # start -> end of the expansions of macros with arguments

    def line_of(self, offset):
        return bisect.bisect_right(self._starts, offset)

    def line_text(self, line):
        end = self._starts[line] if line < len(self._starts) else len(self.content)
        return self.content[self._starts[line - 1] : end].decode().strip()

    def text(self, start, end):
        return self.content[start:end].decode()

    def between(self, start, end):
        """The tokens that lie within these offsets."""
        first = bisect.bisect_left(self._token_starts, start)
        last = bisect.bisect_left(self._token_starts, end)
        return [token for token in self.tokens[first:last] if token.end <= end]

    def with_semicolon(self, end):
        following = bisect.bisect_left(self._token_starts, end)
        if following < len(self.tokens) and self.tokens[following].text == ";":
            return self.tokens[following].end
        return end

    def in_macro(self, start, end):
        return any(first <= start and end <= last for first, last in self.macros.items())


@dataclasses.dataclass(frozen=True)
class _Place:
    """What surrounds a node."""

    function: tuple = ()
    statement: int = 0  # the first line of the innermost statement


class _Unit:
    """One translation unit and the project's files in it."""

    def __init__(self, tree, path, command):
        self.tree = tree
        arguments = shlex.split(command)
        start = next(index for index, word in enumerate(arguments) if index and word.startswith("-"))
        options = cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
        self.unit = cindex.Index.create().parse(
            str(path), args=[*arguments[start : arguments.index("-o")], "-w"], options=options
        )
        errors = [str(told) for told in self.unit.diagnostics if told.severity >= cindex.Diagnostic.Error]
        if errors:
            raise ParseError(errors[0])
        self.files = {}
        self.found = []

    def mutants(self):
        nodes = []
        for cursor in self.unit.cursor.get_children():
            file = self._file_of(cursor)
            if file is None:
                continue
            if cursor.kind == cindex.CursorKind.MACRO_INSTANTIATION:
                if file.text(*self._range(cursor)).endswith(")"):
                    file.macros[cursor.extent.start.offset] = cursor.extent.end.offset
            elif cursor.kind == cindex.CursorKind.MACRO_DEFINITION:
                self._add_macro_texts(file, cursor)
            elif cursor.kind.is_declaration():
                nodes.append((cursor, file))
        for cursor, file in nodes:
            self._visit(cursor, file, _Place())
        return self.found

    def _file_of(self, cursor):
        location = cursor.location.file
        if location is None or not location.name.startswith(f"{self.tree}/"):
            return None
        name = str(Path(location.name).resolve().relative_to(self.tree))
        if not name.startswith(tuple(f"{folder}/" for folder in FOLDERS)):
            return None
        if name not in self.files:
            self.files[name] = _File(self.tree, name, self.unit)
        return self.files[name]

    @staticmethod
    def _range(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def _add(self, file, place, start, end, new, kind, change):
        line = file.line_of(start)
        self.found.append(
            Mutant(
                file.name,
                start,
                end,
                new,
                kind,
                change,
                line,
                file.line_text(line),
                (place.statement or line, file.line_of(end)),
                place.function,
                (),
            )
        )

    def _replace(self, file, place, token, new, kind):
        self._add(file, place, token.start, token.end, new, kind, f"{token.text} -> {new}")

    # The tree

    def _visit(self, cursor, file, place):
        kinds = cindex.CursorKind
        start, end = self._range(cursor)
        if cursor.kind == kinds.STATIC_ASSERT or file.in_macro(start, end):
            return
        if cursor.kind in (kinds.FUNCTION_DECL, kinds.CXX_METHOD, kinds.CONSTRUCTOR, kinds.DESTRUCTOR,
                           kinds.FUNCTION_TEMPLATE, kinds.CONVERSION_FUNCTION):  # fmt: skip
            place = _Place((cursor.extent.start.line, cursor.extent.end.line))
        children = list(cursor.get_children())
        if cursor.kind == kinds.COMPOUND_STMT:
            self._add_statements(children, file, place)
            for child in children:
                self._visit(child, file, dataclasses.replace(place, statement=child.extent.start.line))
            return
        rule = {
            kinds.BINARY_OPERATOR: self._add_binary,
            kinds.COMPOUND_ASSIGNMENT_OPERATOR: self._add_binary,
            kinds.CALL_EXPR: self._add_comparison_call,
            kinds.UNARY_OPERATOR: self._add_unary,
            kinds.INTEGER_LITERAL: self._add_integer,
            kinds.CHARACTER_LITERAL: self._add_character,
            kinds.CXX_BOOL_LITERAL_EXPR: self._add_bool,
            kinds.STRING_LITERAL: self._add_strings,
            kinds.IF_STMT: self._add_condition,
            kinds.WHILE_STMT: self._add_condition,
            kinds.FOR_STMT: self._add_condition,
            kinds.CONDITIONAL_OPERATOR: self._add_choice,
        }.get(cursor.kind)
        if rule is not None:
            rule(cursor, children, file, place)
        for child in children:
            if self._file_of(child) is file:
                self._visit(child, file, place)

    # Expressions

    def _add_binary(self, cursor, children, file, place):
        if len(children) == 2:
            between = file.between(children[0].extent.end.offset, children[1].extent.start.offset)
            for token in between:
                if token.text in OPERATORS:
                    self._replace(file, place, token, OPERATORS[token.text], "operator")

    def _add_comparison_call(self, cursor, children, file, place):
        """Comparisons of objects are calls of a function."""
        for child in children:
            tokens = file.between(*self._range(child)) if child.spelling.startswith("operator") else []
            if len(tokens) == 1 and tokens[0].text in COMPARISONS:
                self._replace(file, place, tokens[0], OPERATORS[tokens[0].text], "operator")

    def _add_unary(self, cursor, children, file, place):
        tokens = file.between(*self._range(cursor))
        if not tokens:
            return
        if tokens[0].text in ("!", "~", "-"):
            self._replace(file, place, tokens[0], "", "operator")
        for token in (tokens[0], tokens[-1]):
            if token.text in ("++", "--"):
                self._replace(file, place, token, {"++": "--", "--": "++"}[token.text], "operator")

    def _literal(self, cursor, file):
        tokens = file.between(*self._range(cursor))
        written = len(tokens) == 1 and (tokens[0].literal or tokens[0].text in ("true", "false"))
        return tokens[0] if written else None

    def _add_integer(self, cursor, children, file, place):
        token = self._literal(cursor, file)
        match = token and INTEGER.fullmatch(token.text)
        if not match:
            return
        digits, suffix = match[1].replace("'", ""), match[2]
        octal = len(digits) > 1 and digits.isdigit() and digits[0] == "0"
        value = int(digits, 8 if octal else 0)
        changed = 0 if value == 1 else value + 1
        new = f"0{changed:o}" if octal else hex(changed) if digits[:2].lower() == "0x" else str(changed)
        self._replace(file, place, token, new + suffix, "constant")

    def _add_character(self, cursor, children, file, place):
        token = self._literal(cursor, file)
        if token:
            self._replace(file, place, token, "'x'" if token.text != "'x'" else "'y'", "constant")

    def _add_bool(self, cursor, children, file, place):
        token = self._literal(cursor, file)
        if token:
            self._replace(file, place, token, "false" if token.text == "true" else "true", "constant")

    def _add_strings(self, cursor, children, file, place):
        for token in file.between(*self._range(cursor)):
            if token.literal:
                self._add_text(file, place, token)

    def _add_text(self, file, place, token, need_word=False):
        match = STRING.fullmatch(token.text)
        if not match:
            return
        raw, content = match[2], match[3]
        choice = zlib.crc32(f"{file.name}:{content}".encode())
        # Each line of a raw string is a text of its own; its delimiters stay.
        pieces = content.splitlines(keepends=True) if raw else [content]
        at = token.start + len(match[1]) + len(raw) + 1
        for piece in pieces:
            words = list(WORD.finditer(piece))
            if words:
                word = words[choice % len(words)]
                changed = f"{piece[: word.start()]}{word[0]}x{piece[word.end() :]}"
            elif raw or need_word:
                at += len(piece.encode())
                continue
            elif piece.isdigit():
                changed = piece[:-1] + str((int(piece[-1]) + 1) % 10)
            else:
                changed = f"x{piece}"
            end = at + len(piece.encode())
            self._add(file, place, at, end, changed, "text", f'"{piece.strip()}" -> "{changed.strip()}"')
            at = end

    def _add_macro_texts(self, file, cursor):
        for token in file.between(*self._range(cursor)):
            if token.literal and token.text.startswith('"'):
                self._add_text(file, _Place(), token)

    # Conditions

    def _add_condition(self, cursor, children, file, place):
        tokens = file.between(*self._range(cursor))
        if tokens[1].text != "(":
            return
        # The condition: what follows the last semicolon of `if` and `while`, the middle part of `for`.
        parts = _split(tokens[1:], ";")
        part = parts[1] if cursor.kind == cindex.CursorKind.FOR_STMT else parts[-1]
        if not part:
            return
        inside = (part[0].start, part[-1].end)
        for child in children:
            if inside == self._range(child) and child.kind.is_expression():
                self._negate(child, file, place)
                return

    def _add_choice(self, cursor, children, file, place):
        self._negate(children[0], file, place)

    def _negate(self, cursor, file, place):
        start, end = self._range(cursor)
        inner = _peeled(cursor)
        tokens = file.between(start, end)
        if inner.kind == cindex.CursorKind.UNARY_OPERATOR and tokens[0].text == "!":
            return  # taking the operator away is the same
        if any(token.text in ("==", "!=") for token in tokens) and not any(
            token.text in ("&&", "||", "?") for token in tokens
        ):
            return  # so is turning it round
        text = file.text(start, end)
        self._add(file, place, start, end, f"!({text})", "condition", f"negate {_short(text)}")

    # Statements

    def _add_statements(self, children, file, place):
        statements = [_Statement(child, file) for child in children]
        for statement in statements:
            here = dataclasses.replace(place, statement=file.line_of(statement.start))
            if statement.is_log:
                self._add_log(statement, file, here)
            if statement.is_call or statement.is_log:
                change = f"delete {_short(file.text(statement.start, statement.end))}"
                self._add(file, here, statement.start, statement.end, "", "deletion", change)
        for first, second in zip(statements, statements[1:]):
            if first.may_swap_with(second):
                texts = [file.text(one.start, one.end) for one in (first, second)]
                gap = file.text(first.end, second.start)
                here = dataclasses.replace(place, statement=file.line_of(first.start))
                change = f"swap {_short(texts[0])} with {_short(texts[1])}"
                self._add(file, here, first.start, second.end, texts[1] + gap + texts[0], "order", change)

    def _add_log(self, statement, file, place):
        tokens = file.between(statement.start, statement.end)
        self._replace(file, place, tokens[0], LEVELS[tokens[0].text], "level")
        arguments = _split(tokens[1:], ",")
        literals = [token for token in arguments[0] if token.literal]
        for token in literals:
            self._add_text(file, place, token, need_word=len(literals) > 1)
        conversions = CONVERSION.findall("".join(token.text[1:-1] for token in literals))
        values = [(part[0].start, part[-1].end) for part in arguments[1:]]
        if len(conversions) != len(values):
            return
        for index in range(len(values) - 1):
            (start, middle), (second, end) = values[index], values[index + 1]
            texts = file.text(start, middle), file.text(second, end)
            if conversions[index] == conversions[index + 1] and texts[0] != texts[1]:
                new = texts[1] + file.text(middle, second) + texts[0]
                change = f"swap {_short(texts[0])} with {_short(texts[1])}"
                self._add(file, place, start, end, new, "arguments", change)


class _Statement:
    """A direct child of a compound statement."""

    def __init__(self, cursor, file):
        kinds = cindex.CursorKind
        self.start = cursor.extent.start.offset
        self.end = file.with_semicolon(cursor.extent.end.offset)
        first = next(iter(file.between(self.start, self.end)), None)
        self.is_log = first is not None and first.text in LEVELS and self.start in file.macros
        in_macro = file.in_macro(self.start, cursor.extent.end.offset)
        inner = _peeled(cursor)
        self.is_call = (
            not in_macro
            and cursor.kind.is_expression()
            and (
                inner.kind == kinds.CXX_DELETE_EXPR
                or (inner.kind == kinds.CALL_EXPR and not inner.spelling.startswith("operator"))
            )
        )
        movable = cursor.kind.is_expression() or cursor.kind in (
            kinds.IF_STMT, kinds.FOR_STMT, kinds.WHILE_STMT, kinds.SWITCH_STMT, kinds.CXX_FOR_RANGE_STMT
        )  # fmt: skip
        self.movable = movable and (self.is_log or not in_macro)
        self.calls = self.is_log
        self.references = set()
        self.written = set()  # None stands for what is not a local variable
        for node in cursor.walk_preorder():
            self._note(node)

    def _note(self, node):
        kinds = cindex.CursorKind
        if node.kind == kinds.CALL_EXPR:
            called = node.referenced
            constant = called is not None and called.kind == kinds.CXX_METHOD and called.is_const_method()
            if called is None or called.kind != kinds.CONSTRUCTOR and not constant:
                self.calls = self.calls or not node.spelling.startswith("operator")
        elif node.kind in (kinds.CXX_DELETE_EXPR, kinds.CXX_NEW_EXPR):
            self.calls = True
        elif node.kind == kinds.DECL_REF_EXPR and node.referenced is not None:
            self.references.add(node.referenced.hash)
        if _is_write(node):
            target = _peeled(next(node.get_children()))
            variable = target.referenced if target.kind == kinds.DECL_REF_EXPR else None
            self.written.add(variable.hash if variable is not None else None)

    def may_swap_with(self, other):
        """Both have an effect, and not just on variables that the other does not know: then nobody could
        tell their order."""
        if not self.movable or not other.movable or not (self.calls or other.calls):
            return False
        return all(
            one.calls or None in one.written or one.written & two.references
            for one, two in ((self, other), (other, self))
        )


def _is_write(node):
    kinds = cindex.CursorKind
    if node.kind == kinds.COMPOUND_ASSIGNMENT_OPERATOR:
        return True
    children = list(node.get_children()) if node.kind in (kinds.BINARY_OPERATOR, kinds.UNARY_OPERATOR) else []
    if node.kind == kinds.BINARY_OPERATOR and len(children) == 2:
        end = children[0].extent.end.offset
        between = [token.spelling for token in node.get_tokens() if token.extent.start.offset >= end]
        return between[:1] == ["="]
    if node.kind == kinds.UNARY_OPERATOR:
        spellings = [token.spelling for token in node.get_tokens()]
        return any(spelling in ("++", "--") for spelling in (spellings[:1] + spellings[-1:]))
    return False


def _peeled(cursor):
    """Without what the compiler or a cast to void put around it."""
    kinds = cindex.CursorKind
    while cursor.kind in (kinds.UNEXPOSED_EXPR, kinds.CXX_STATIC_CAST_EXPR, kinds.PAREN_EXPR):
        inner = [child for child in cursor.get_children() if child.kind.is_expression()]
        if not inner:
            break
        cursor = inner[-1]
    return cursor


def _split(tokens, separator):
    """The parts of a parenthesised list: `tokens` begins with its opening parenthesis."""
    depth, parts = 0, [[]]
    for token in tokens:
        if token.text in ("(", "[", "{"):
            depth += 1
            if depth == 1:
                continue
        elif token.text in (")", "]", "}"):
            depth -= 1
            if depth == 0:
                break
        if depth == 1 and token.text == separator:
            parts.append([])
        else:
            parts[-1].append(token)
    return parts


def _short(text, most=70):
    text = " ".join(text.split())
    return text if len(text) <= most else f"{text[: most - 3]}..."
