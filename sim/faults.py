"""Makes chosen editor operations fail, answer otherwise, go missing, or be counted.

An operation is named "Class.method", "Class.attribute" or, for a module function, "log".
"""
import contextlib
import inspect
import types

import unreal

_ABSENT = object()


class _Missing:
    """Stands for an attribute that this version of the editor does not have."""

    def __set_name__(self, owner, name):
        self.name = name

    def __get__(self, instance, owner):
        raise AttributeError(f"'{owner.__name__}' has no attribute '{self.name}'")


class Injection:
    """An active fault; `hits` counts how often it struck."""

    def __init__(self, error, result, times, after, when):
        self.error, self.result = error, result
        self.times, self.after, self.when = times, after, when
        self.hits = 0

    def __call__(self, call, args, kwargs):
        if self.when is None or self.when(*args, **kwargs):
            if self.after > 0:
                self.after -= 1
            elif self.times is None or self.hits < self.times:
                self.hits += 1
                if self.result is _ABSENT:
                    raise self.error or RuntimeError("injected")
                return self.result
        return call(*args, **kwargs)


def _split(target):
    owner, _, name = target.rpartition(".")
    return (getattr(unreal, owner) if owner else unreal), name


def _wrap(original, hook):
    """`original`, a function, static method or attribute, with `hook` before it."""
    if isinstance(original, staticmethod):
        call = original.__func__
        return staticmethod(lambda *args, **kwargs: hook(call, args, kwargs))
    if isinstance(original, types.FunctionType):
        return lambda *args, **kwargs: hook(original, args, kwargs)

    def get(self):
        return hook(lambda me: original.__get__(me, type(me)), (self,), {})
    return property(get, getattr(original, "__set__", None))


class Faults:
    def __init__(self):
        self._before = []       # (owner, name, what the owner itself had there)

    def _put(self, owner, name, value):
        self._before.append((owner, name, vars(owner).get(name, _ABSENT)))
        if value is _ABSENT:
            delattr(owner, name)
        else:
            setattr(owner, name, value)

    def _back(self, count=0):
        while len(self._before) > count:
            owner, name, value = self._before.pop()
            if value is _ABSENT:
                delattr(owner, name)
            else:
                setattr(owner, name, value)

    def inject(self, target, error, times, after, when, result):
        owner, name = _split(target)
        injection = Injection(error, result, times, after, when)
        self._put(owner, name, _wrap(inspect.getattr_static(owner, name), injection))
        return injection

    def remove(self, target):
        owner, name = _split(target)
        getattr(owner, name)  # a misspelt target is the test's fault
        if isinstance(owner, types.ModuleType):
            self._put(owner, name, _ABSENT)
        else:
            missing = _Missing()
            missing.name = name
            self._put(owner, name, missing)

    def heal(self):
        self._back()

    @contextlib.contextmanager
    def record(self):
        """Collects into a set the operations that are called inside."""
        called, count = set(), len(self._before)
        for target in operations():
            owner, name = _split(target)

            def note(call, args, kwargs, target=target):
                called.add(target)
                return call(*args, **kwargs)
            self._put(owner, name, _wrap(inspect.getattr_static(owner, name), note))
        try:
            yield called
        finally:
            self._back(count)


def operations():
    """All targets: module functions, methods, and attributes that are components or events."""
    found = []
    for name, item in vars(unreal).items():
        if name.startswith("_"):
            continue
        if isinstance(item, types.FunctionType):
            found.append(name)
        elif isinstance(item, type):
            parts = {part[0] for part in vars(item).get("COMPONENTS", ())}
            parts.update(vars(item).get("EVENTS", ()))
            found += [f"{name}.{key}" for key, member in vars(item).items()
                      if not key.startswith("_") and (
                          isinstance(member, (types.FunctionType, staticmethod)) or key in parts)]
    return sorted(found)


ABSENT = _ABSENT
