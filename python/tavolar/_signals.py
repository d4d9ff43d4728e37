"""Sweep stimuli, and records from recorded sweep responses."""

from __future__ import annotations

from typing import List, Optional

import numpy as np
import numpy.typing as npt

from . import _native
from ._measure import Sweep
from ._records import Record


def sweep_stimulus(sample_rate: int = 48000, sweep: Sweep = None) -> npt.NDArray[np.float32]:
    """The signal a measurement plays (what ``tavolar sweep`` writes): silence, the logarithmic sweep,
    silence. sweep is a preset or a dict of settings, as measure takes it."""
    return _native.sweep_stimulus(sample_rate, sweep)


def deconvolve(response: npt.ArrayLike, sample_rate: int, stimulus: Optional[npt.ArrayLike] = None,
               sweep: Sweep = None, reference: Optional[npt.ArrayLike] = None,
               regularization: Optional[float] = None, name: Optional[str] = None) -> List[Record]:
    """Records from a recorded response (channels first, samples last), divided by the stimulus that
    was played, or by the one the sweep settings make; with a loop-back reference recorded beside it,
    the chain to the reference input is divided out too. regularization is the lambda of a
    regularised division (needed for band-limited sweeps). Records made with sweep settings know
    their harmonics. Store them with Document.add."""
    handles = _native.deconvolve(
        np.asarray(response), sample_rate, None if stimulus is None else np.asarray(stimulus), sweep,
        None if reference is None else np.asarray(reference), regularization, name)
    return [Record(handle) for handle in handles]
