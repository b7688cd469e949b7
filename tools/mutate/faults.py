"""Finds places in C++ sources where a small fault can be put in, and puts it there behind a switch.

A fault is a range of the source and two texts: what stands there, and what stands there when
`mutate::on(N)` says so. Both stay in the program, so that one build holds all faults.
"""

import dataclasses
import pathlib

from clang.cindex import CursorKind, Index, TokenKind, TranslationUnit, TypeKind

SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
         "+": "-", "-": "+", "*": "/", "&": "|", "|": "&"}
ASSIGNMENTS = {"=", "+=", "-=", "|=", "&="}
NUMBERS = {TypeKind.BOOL, TypeKind.ENUM, TypeKind.FLOAT, TypeKind.DOUBLE, TypeKind.CHAR_S, TypeKind.SCHAR,
           TypeKind.UCHAR, TypeKind.SHORT, TypeKind.USHORT, TypeKind.INT, TypeKind.UINT, TypeKind.LONG,
           TypeKind.ULONG, TypeKind.LONGLONG, TypeKind.ULONGLONG, TypeKind.POINTER}
FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.CONVERSION_FUNCTION, CursorKind.LAMBDA_EXPR, CursorKind.FUNCTION_TEMPLATE}
# What must stay a constant.
CONSTANT_ONLY = {CursorKind.CASE_STMT, CursorKind.STATIC_ASSERT, CursorKind.ENUM_CONSTANT_DECL,
                 CursorKind.TEMPLATE_TYPE_PARAMETER, CursorKind.TEMPLATE_NON_TYPE_PARAMETER}


@dataclasses.dataclass(frozen=True)
class Fault:
    """`start` and `end` are byte offsets in `path`; `text` has NUMBER where its number belongs."""
    path: pathlib.Path
    start: int
    end: int
    line: int
    what: str
    text: str


def _is_number(cursor):
    return cursor.type.get_canonical().kind in NUMBERS


class _Finder:
    def __init__(self, path, unit):
        self.path = path
        self.source = path.read_bytes()
        self.unit = unit
        self.faults = []

    def text(self, start, end):
        return self.source[start:end].decode()

    def range(self, cursor):
        """Offsets of a cursor that was written in this file and not by a macro; else None."""
        start, end = cursor.extent.start, cursor.extent.end
        if not start.file or pathlib.Path(start.file.name).resolve() != self.path or start.offset >= end.offset:
            return None
        return start.offset, end.offset

    def add(self, cursor_range, line, what, text):
        start, end = cursor_range
        self.faults.append(Fault(self.path, start, end, line, what, text))

    def operator_of(self, cursor):
        """(text, offset) of a binary operator's own token."""
        sides = list(cursor.get_children())
        if len(sides) != 2:
            return None
        left_end, right_start = sides[0].extent.end.offset, sides[1].extent.start.offset
        for token in cursor.get_tokens():
            if left_end <= token.extent.start.offset < right_start and token.kind == TokenKind.PUNCTUATION \
                    and token.spelling not in "()":
                return token.spelling, token.extent.start.offset
        return None

    def find(self):
        for cursor in self.unit.cursor.get_children():
            self.visit(cursor, in_function=False)
        return self.faults

    def visit(self, cursor, in_function):
        if cursor.location.file and pathlib.Path(cursor.location.file.name).resolve() != self.path:
            return
        kind = cursor.kind
        if kind in CONSTANT_ONLY:
            # A case's statement is its last child.
            for child in list(cursor.get_children())[1:] if kind == CursorKind.CASE_STMT else []:
                self.visit(child, in_function)
            return
        if kind in FUNCTIONS:
            first = [token.spelling for _, token in zip(range(8), cursor.get_tokens())]
            if "constexpr" in first:
                return
            in_function = True
        if kind == CursorKind.VAR_DECL and any(token.spelling in ("constexpr", "static")
                                               for _, token in zip(range(2), cursor.get_tokens())):
            return
        where = self.range(cursor)
        if in_function and where:
            self.look_at(cursor, kind, where)
        for child in cursor.get_children():
            self.visit(child, in_function)

    def look_at(self, cursor, kind, where):
        line = cursor.extent.start.line
        if kind == CursorKind.BINARY_OPERATOR:
            self.swap_operator(cursor, where, line)
        elif kind == CursorKind.IF_STMT:
            self.negate_condition(cursor, line)
        elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
            text = self.text(*where)
            if text in ("true", "false"):
                self.add(where, line, f"{text} the other way round", f"(mutate::on(NUMBER) != {text})")
        elif kind == CursorKind.INTEGER_LITERAL:
            text = self.text(*where)
            if text[:1].isdigit():
                self.add(where, line, f"{text} + 1", f"(mutate::on(NUMBER) ? {text} + 1 : {text})")
        elif kind == CursorKind.COMPOUND_STMT:
            self.leave_out(cursor)

    def swap_operator(self, cursor, where, line):
        found = self.operator_of(cursor)
        sides = list(cursor.get_children())
        if not found or found[0] not in SWAPS or not all(map(_is_number, sides)):
            return
        operator, at = found
        whole = self.text(*where)
        left = self.text(where[0], at)
        right = self.text(at + len(operator), where[1])
        other = SWAPS[operator]
        self.add(where, line, f"{operator} becomes {other}",
                 f"(mutate::on(NUMBER) ? ({left}{other}{right}) : ({whole}))")

    def negate_condition(self, cursor, line):
        children = list(cursor.get_children())
        conditions = [child for child in children[:-1] if child.kind.is_expression()]
        if not conditions or children[0].kind == CursorKind.DECL_STMT or children[0].kind == CursorKind.VAR_DECL:
            return
        where = self.range(conditions[0])
        if where:
            condition = self.text(*where)
            self.add(where, line, "condition the other way round",
                     f"(mutate::on(NUMBER) != static_cast<bool>({condition}))")

    def leave_out(self, block):
        for statement in block.get_children():
            where = self.range(statement)
            if not where:
                continue
            is_call = statement.kind in (CursorKind.CALL_EXPR, CursorKind.CXX_DELETE_EXPR) or (
                statement.kind.is_expression() and self.text(*where).endswith(")"))
            operator = self.operator_of(statement) if statement.kind == CursorKind.BINARY_OPERATOR else None
            is_assignment = operator and operator[0] in ASSIGNMENTS or \
                statement.kind == CursorKind.COMPOUND_ASSIGNMENT_OPERATOR or \
                statement.kind == CursorKind.UNARY_OPERATOR and ("++" in self.text(*where) or "--" in self.text(*where))
            if is_call or is_assignment:
                text = self.text(*where)
                self.add(where, statement.extent.start.line, f"left out: {' '.join(text.split())[:60]}",
                         f"if (!mutate::on(NUMBER)) {text}")


def find_faults(path, arguments):
    """All faults of one source file, compiled with these arguments; none inside of a macro's."""
    path = path.resolve()
    unit = Index.create().parse(str(path), args=arguments,
                                options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
    macros = [(cursor.extent.start.offset, cursor.extent.end.offset)
              for cursor in unit.cursor.get_children()
              if cursor.kind == CursorKind.MACRO_INSTANTIATION and cursor.location.file
              and pathlib.Path(cursor.location.file.name).resolve() == path]
    return [fault for fault in _Finder(path, unit).find()
            if not any(start <= fault.start and fault.end <= end for start, end in macros)]


def put_in(source, faults):
    """The source with faults in it, given as (number, fault); their ranges do not overlap."""
    for number, fault in sorted(faults, key=lambda pair: pair[1].start, reverse=True):
        source = source[:fault.start] + fault.text.replace("NUMBER", str(number)).encode() + source[fault.end:]
    return source
