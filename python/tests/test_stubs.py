"""The stubs and the module agree: names, members, arguments and their defaults. Everything is documented."""

import ast
import inspect
import re
from pathlib import Path

import pytest

import tidalcrest.sync as tc

STUB = ast.parse(Path(tc.__file__).with_name("__init__.pyi").read_text())
FUNCTION = re.compile(r"^\w+\((.*)\) -> ", re.M)
NO_DEFAULT = object()


def stub_names(body):
    for node in body:
        if isinstance(node, ast.AnnAssign):
            yield node.target.id, node
        elif isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            yield node.name, node


def stub_arguments(node):
    """Argument names with their defaults."""
    arguments = node.args.posonlyargs + node.args.args + node.args.kwonlyargs
    defaults = [NO_DEFAULT] * (len(node.args.args) - len(node.args.defaults)) + node.args.defaults
    values = [value if value is NO_DEFAULT else ast.literal_eval(value) for value in defaults]
    return [(argument.arg, value) for argument, value in zip(arguments, values)]


def module_arguments(function):
    """The same of a function of the module, whose native ones tell it in their first line."""
    try:
        parameters = inspect.signature(function).parameters.values()
        return [(p.name, NO_DEFAULT if p.default is p.empty else p.default) for p in parameters]
    except ValueError:
        node = ast.parse("def f(" + FUNCTION.search(function.__doc__).group(1) + "): ...").body[0]
        return stub_arguments(node)


def members(cls):
    """What the class itself adds. The fields of a record live in its annotations."""
    own = {name for name in vars(cls) if not name.startswith("__")} | set(getattr(cls, "__dataclass_fields__", ()))
    return {name for name in own if name not in ("_pybind11_conduit_v1_",)}


def test_the_names_are_the_same():
    public = {name for name, _ in stub_names(STUB.body) if not name.startswith("_")}
    assert public == set(tc.__all__)
    assert Path(tc.__file__).with_name("py.typed").exists()


CLASSES = [(name, node) for name, node in stub_names(STUB.body)
           if isinstance(node, ast.ClassDef) and not name.startswith("_")]


@pytest.mark.parametrize("name, node", CLASSES, ids=[name for name, _ in CLASSES])
def test_classes(name, node):
    cls = getattr(tc, name)
    assert cls.__module__ == "tidalcrest.sync" and cls.__doc__
    own = dict(stub_names(node.body))
    stubbed = {member for member in own if not member.startswith("__")}
    if issubclass(cls, BaseException):  # attributes are set on construction
        stubbed = {member for member in stubbed if isinstance(own[member], ast.FunctionDef)}
        assert [ast.unparse(base) for base in node.bases] == [base.__name__ for base in cls.__bases__]
    assert stubbed == members(cls)
    for member, definition in own.items():
        if not isinstance(definition, ast.FunctionDef):
            continue
        found = inspect.getattr_static(cls, member)
        if isinstance(found, property):
            assert found.__doc__, member
            continue
        function = getattr(cls, member)
        assert stub_arguments(definition) == module_arguments(function), member
        documented = cls.__doc__ if member == "__init__" else function.__doc__
        assert documented or member.startswith("_"), member


def test_functions_and_constants():
    for name, node in stub_names(STUB.body):
        if isinstance(node, ast.FunctionDef):
            assert stub_arguments(node) == module_arguments(getattr(tc, name)), name
            assert getattr(tc, name).__doc__.strip().count("\n") >= 1, name
        elif isinstance(node, ast.AnnAssign):
            assert type(getattr(tc, name)).__name__ == ast.unparse(node.annotation), name
