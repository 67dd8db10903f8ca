"""Histories read over HTTP, and how two of them differ."""

import collections
import typing

MOST_DIFFERENCES = 5  # told of one item


class Sample(typing.NamedTuple):
    time: int  # ms since 1970
    value: object
    quality: int


def item_ids(host, paths):
    """The archive's id of each path."""
    reply = host.call("GetArchiveItems", {"items": [{"path": path} for path in paths]})
    return {item["path"]: item["archiveItemId"] for item in reply["items"]}


def _read(host, ids, parameters, points=None):
    data = [{"archiveItemId": each} for each in ids]
    for item, point in zip(data, points or ()):
        item["continuationPoint"] = point
    reply = host.call("HistoryReadRaw", {"data": data, "parameters": parameters})
    for item in reply["data"]:
        assert "statusCode" not in item, item
    return reply["data"]


def _samples(item):
    return [Sample(*each) for each in item["values"]]


def newest_times(host, paths):
    """The time of each path's newest sample; 0 where there is none."""
    ids = item_ids(host, paths)
    data = _read(host, [ids[path] for path in paths], {"returnFirstLastValue": True})
    return {path: max((s.time for s in _samples(item)), default=0)
            for path, item in zip(paths, data)}


def read(host, paths, page):
    """All of each path's history, in pages of so many samples."""
    ids = item_ids(host, paths)
    histories = {path: [] for path in paths}
    asked = [(path, None) for path in paths]
    while asked:
        first = asked[0][1] is None
        data = _read(host, [ids[path] for path, _ in asked], {"numValuesPerNode": page},
                     None if first else [point for _, point in asked])
        following = []
        for (path, _), item in zip(asked, data):
            histories[path] += _samples(item)
            if item["areMoreValues"]:
                following.append((path, item["continuationPoint"]))
        asked = following
    return histories


def page_size(histories, least):
    """A size of pages that ends none of them between two samples of one millisecond.

    There a read would not go on with the second: in a history with times cut to the millisecond
    the two have one time. It is the read that cannot give it, so the comparison keeps off, also
    where up to two marks of the puller's own stand before them.
    """
    ties = [at for samples in histories for at in range(1, len(samples))
            if samples[at].time == samples[at - 1].time]
    size = least
    while any((at + marks) % size == 0 for at in ties for marks in range(3)):
        size += 1
    return size


def until(samples, time):
    return [sample for sample in samples if sample.time <= time]


def differences(path, expected, found):
    """Lines that say where `found` is not `expected`, sample by sample; none when it is."""
    if expected == found:
        return []
    lines = []
    for before, after in zip(found, found[1:]):
        if after.time < before.time:
            lines.append(f"{path}: {after} comes after {before}")
    lines += _surplus(path, "is missing", expected, found)
    lines += _surplus(path, "is there without reason, or twice", found, expected)
    if not lines:
        lines = [f"{path}: the same samples in another order"]
    if len(lines) > MOST_DIFFERENCES:
        lines[MOST_DIFFERENCES:] = [f"{path}: and {len(lines) - MOST_DIFFERENCES} more"]
    return [f"{path}: expected {len(expected)} samples, found {len(found)}"] + lines


def _surplus(path, trouble, these, those):
    more = collections.Counter(these) - collections.Counter(those)
    return [f"{path}: {sample} {trouble}" for sample in more.elements()]
