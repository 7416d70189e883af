"""Documents are held against what their commands print: what varies may vary, and nothing else."""

from __future__ import annotations

from pathlib import Path

import pytest
from harness.documents import Document
from harness.walkthrough import Walkthrough, shows

PAGE = """# Page

## Greeting

```sh
echo "hello $((1 + 1))"
```

As a result:

```text
hello 2
```

```sh
echo to /srv/data
```

## Silence

```shell
reboot
```
"""
PRINTED = "Published zones version 1001: 66 files, 97.5 kB in a package\nThe end.\n"


@pytest.fixture
def page(tmp_path: Path) -> Document:
    path = tmp_path / "page.md"
    path.write_text(PAGE)
    return Document(path)


@pytest.fixture
def walkthrough(tmp_path: Path) -> Walkthrough:
    return Walkthrough(tmp_path, {"/srv": f"{tmp_path}/srv"})


def test_commands_come_in_order_with_the_text_that_follows_them(page: Document) -> None:
    first, second = page.steps("Greeting")
    assert (first.shown, second.shown) == ("hello 2\n", None)
    assert page.steps("Silence") == []


def test_places_stand_for_others_and_outputs_are_those_shown(page: Document, walkthrough: Walkthrough) -> None:
    first, second = page.steps("Greeting")
    assert walkthrough.follow(first).stdout == "hello 2\n"
    assert walkthrough.follow(second).stdout == f"to {walkthrough.places['/srv']}/data\n"


@pytest.mark.parametrize(
    ("old", "new"), [("1 + 1", "1 + 2"), ("hello 2\n", "hello 2\nagain\n"), ('echo "', 'false "')]
)
def test_another_output_is_found(page: Document, walkthrough: Walkthrough, tmp_path: Path, old: str, new: str) -> None:
    changed = tmp_path / "changed.md"
    changed.write_text(PAGE.replace(old, new))
    with pytest.raises(AssertionError, match="Greeting"):
        walkthrough.follow(Document(changed).steps("Greeting")[0])


def test_a_warning_that_is_not_shown_is_found(walkthrough: Walkthrough, tmp_path: Path) -> None:
    changed = tmp_path / "changed.md"
    changed.write_text(PAGE.replace("echo to", "echo >&2 to"))
    with pytest.raises(AssertionError, match="Greeting"):
        walkthrough.follow(Document(changed).steps("Greeting")[1])


@pytest.mark.parametrize("shown", [
    PRINTED,
    "Published zones version 1001: 12 files, 3 MB in a package\nThe end.\n",
    "...\nThe end.\n",
    "...\n",
])  # fmt: skip
def test_what_varies_may_vary(shown: str) -> None:
    assert shows(shown, PRINTED)


@pytest.mark.parametrize("shown", [
    "",
    PRINTED.replace("1001", "1000"),
    PRINTED.replace("zones", "zone"),
    PRINTED.replace("The end.\n", ""),
    PRINTED + "More.\n",
    "...\nAnother end.\n",
])  # fmt: skip
def test_what_does_not_vary_must_be_the_same(shown: str) -> None:
    assert not shows(shown, PRINTED)
