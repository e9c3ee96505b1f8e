import dataclasses

import pytest


def test_record_classes_are_frozen_dataclasses(gu):
    for cls, fields in [
        (gu.FileChange, ["path", "status", "additions", "deletions", "old_path"]),
        (gu.CommitChanges, ["timestamp", "files"]),
        (gu.LineSpan, ["start", "end", "added"]),
    ]:
        assert dataclasses.is_dataclass(cls) and cls.__dataclass_params__.frozen
        assert [f.name for f in dataclasses.fields(cls)] == fields
        assert cls.__module__ == gu.__name__ and cls.__qualname__ == cls.__name__ and cls.__doc__
        assert cls.__bases__ == (object,)
    assert gu.FileChange.__annotations__["old_path"] == str | None
    assert gu.CommitChanges.__annotations__["files"] == tuple[gu.FileChange, ...]


def test_record_values(gu):
    a = gu.FileChange("p", "renamed", 1, 2, old_path="o")
    assert a == gu.FileChange("p", "renamed", 1, 2, "o") and hash(a) == hash(gu.FileChange("p", "renamed", 1, 2, "o"))
    assert a != gu.FileChange("p", "renamed", 1, 2) and gu.FileChange("p", "added", 1, 2).old_path is None
    assert a != ("p", "renamed", 1, 2, "o")
    assert repr(a) == "FileChange(path='p', status='renamed', additions=1, deletions=2, old_path='o')"
    assert gu.CommitChanges(5, (a,)) != gu.CommitChanges(5, (a, a)) and gu.CommitChanges(5, ()) == gu.CommitChanges(5, ())
    with pytest.raises(TypeError):
        gu.LineSpan(1, 2, True) < gu.LineSpan(1, 3, True)
