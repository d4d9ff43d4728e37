"""Shared fixtures: the command line built beside the package, and a measured document."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path
from typing import Callable, List

import pytest


@pytest.fixture(scope="session")
def cli() -> Callable[..., subprocess.CompletedProcess[str]]:
    """Runs the command line (TAVOLAR_CLI names it) and answers its completed process."""
    found = os.environ.get("TAVOLAR_CLI") or shutil.which("tavolar")
    if not found:
        pytest.skip("the command line is not built (TAVOLAR_CLI names it)")
    program: str = found

    def run(*arguments: str, check: bool = True) -> subprocess.CompletedProcess[str]:
        return subprocess.run([program, *arguments], capture_output=True, text=True, check=check)

    return run


@pytest.fixture(scope="session")
def measured(tmp_path_factory: pytest.TempPathFactory, cli: Callable[..., object]) -> Path:
    """A document of one measurement of the simulated device through a loop-back reference."""
    path = tmp_path_factory.mktemp("measured") / "room.tavolar"
    cli("measure", str(path), "--fast", "--loopback", "1:1", "--name", "Left speaker")
    return path


@pytest.fixture
def document(measured: Path, tmp_path: Path) -> Path:
    """A copy of the measured document for a test to change."""
    path = tmp_path / "room.tavolar"
    shutil.copy(measured, path)
    return path


def read_csv(path: Path) -> List[List[float]]:
    """The columns of a CSV file the command line exported (a header row, a trailing comma)."""
    lines = path.read_text().splitlines()[1:]
    rows = [[float(field) for field in line.rstrip(",").split(",")] for line in lines]
    return [list(column) for column in zip(*rows)]
