"""Arithmetic on 64-bit unsigned numbers that stays exact: numpy and pandas would turn some of it into floats."""
from __future__ import annotations

from typing import Union

import numpy as np
import pandas as pd

Addresses = Union[pd.Series, np.ndarray, int]

def _like(values: Addresses, result: np.ndarray):
    """The result in the form in which the values came: a series keeps index and name, a number is a numpy scalar."""
    if isinstance(values, pd.Series):
        return pd.Series(result, index=values.index, name=values.name)
    return result


def _unsigned(values: Addresses) -> np.ndarray:
    array = np.asarray(values)
    if array.dtype == np.uint64:
        return array
    if array.dtype.kind not in "iu":
        raise TypeError(f"addresses are unsigned 64-bit numbers, not {array.dtype}: bits may be lost already")
    return array.astype(np.uint64)


def page(addresses: Addresses, bits: int = 12) -> Addresses:
    """Page numbers of addresses: shifted right by `bits`, the address bits within a page (12: 4 KiB, 16: 64 KiB).

    Takes a series, an array or a number; returns uint64 in the same form. Raises TypeError for floats and ValueError
    for bits outside 0 to 63.
    """
    if not 0 <= bits < 64:
        raise ValueError(f"a page cannot have {bits} address bits")
    return _like(addresses, _unsigned(addresses) >> np.uint64(bits))


def distance(to: Addresses, from_: Addresses) -> Addresses:
    """Signed distances `to - from_` as int64, modulo 2**64: right wherever it is between -2**63 and 2**63 - 1.

    Takes series, arrays or numbers, of equal lengths; a series among them gives the result its index. Raises TypeError
    for floats.
    """
    with np.errstate(over="ignore"):
        difference = (_unsigned(to) - _unsigned(from_)).view(np.int64)
    return _like(to if isinstance(to, pd.Series) else from_, difference)


def hex(numbers: Addresses, digits: int = 0) -> Union[pd.Series, np.ndarray, str]:  # pylint: disable=redefined-builtin
    """Numbers as text, "0x" and at least `digits` hexadecimal digits.

    A series gives a series of str, an array an array of objects, a number a str. Raises TypeError for floats.
    """
    values = _unsigned(numbers)
    if values.ndim == 0:
        return f"0x{int(values):0{digits}x}"
    texts = np.empty(len(values), dtype=object)
    texts[:] = [f"0x{value:0{digits}x}" for value in values.tolist()]
    return _like(numbers, texts)
