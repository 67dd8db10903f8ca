"""What happens to the fleet, one case after the other, and what has to be true after each.

After each case the puller's history of every item has to be that of its source: each sample once,
in order, with its value, its quality and its time to the millisecond.
"""

import dataclasses
import re
import time

import plant
from fleet import Difference
from relay import Behaviour

HOUR = 3600
LOSS = 0.3
REFUSED = ("orva_samples_refused_total", 'rule="old_time"')
# A repetition is sent after 100 ms, so the delays are around that; what is late comes when its
# exchange is long done.
BEHAVIOUR = Behaviour(doubled=0.3, late=0.05, delay=(0.005, 0.15), late_delay=(0.8, 2.0))


@dataclasses.dataclass(frozen=True)
class Pace:
    phase: float  # seconds of each phase
    stop: float  # seconds that a stopped host stays away


def require(condition, text):
    if not condition:
        raise Difference([text])


def undisturbed(fleet, pace):
    """nothing happens"""
    time.sleep(pace.phase)
    behind = fleet.compare_all()
    return f"the puller is {behind:.1f} s behind"


def loss(fleet, pace):
    """the puller's interface loses 30 % of the datagrams, coming and going"""
    with fleet.network.loss(plant.PULLER, LOSS) as dropped:
        time.sleep(2 * pace.phase)
        behind = fleet.compare_all()
        count = dropped()
    require(count > 0, "no datagram was lost")
    fleet.compare_all()
    return f"{count} datagrams lost, the puller is up to {behind:.1f} s behind"


def relay(fleet, pace):
    """a relay doubles datagrams, delays each copy, some by seconds, and so changes their order"""
    with fleet.network.relay(plant.PULLER, BEHAVIOUR) as wire:
        time.sleep(2 * pace.phase)
        behind = fleet.compare_all()
    require(wire.doubled > 0 and wire.late > 0, "the relay had nothing to do")
    fleet.compare_all()
    return (f"{wire.datagrams} datagrams, {wire.doubled} doubled, {wire.late} late copies, the puller "
            f"is up to {behind:.1f} s behind")


def source_stopped(fleet, pace):
    """a source is stopped and started again; the other one is pulled meanwhile"""
    source, other = fleet.sources[2], fleet.sources[1]
    source.host.stop()
    time.sleep(pace.stop)
    _, behind = fleet.compare(other, seconds=20)
    fleet.start_source(source)
    time.sleep(pace.phase / 2)
    _, caught_up = fleet.compare(source)
    fleet.compare(other)
    return (f"{pace.stop:.0f} s away; the other source is {behind:.1f} s behind meanwhile, this one "
            f"is caught up with {pace.phase / 2 + caught_up:.1f} s after its start at the latest")


def puller_stopped(fleet, pace):
    """the puller is stopped and started again, and has to close the hole"""
    fleet.puller.stop()
    time.sleep(pace.stop)
    fleet.start_puller()
    began = time.monotonic()
    fleet.compare_all()
    return f"{pace.stop:.0f} s away; caught up with {time.monotonic() - began:.1f} s after its start"


def store_lost(fleet, pace):
    """a source starts anew with an empty store"""
    source = fleet.sources[1]
    time.sleep(pace.phase / 2)
    lost = fleet.lose_store(source)
    fleet.start_source(source)
    time.sleep(pace.phase / 2)
    late, _ = fleet.compare(source)
    require(late == 0, f"{late} samples of the new store are older than those of the lost one")
    fleet.compare_all()
    return f"{lost} samples were in the lost store alone, all others are there"


def store_lost_clock_behind(fleet, pace):
    """a source starts anew with an empty store and a clock an hour behind, which is then set right

    Its new samples are older than those that the puller has. They come too late, until it is set.
    """
    source = fleet.sources[1]
    lost = fleet.lose_store(source)
    source.host.set_clock(-HOUR)
    source.own_clock = True
    fleet.start_source(source)
    time.sleep(pace.phase / 2)
    source.host.set_clock(0)
    time.sleep(pace.phase / 2)
    late, _ = fleet.compare(source)
    require(late > 0, "no sample came too late")
    fleet.compare_all()
    return f"{late} samples came too late and are missing, {lost} were in the lost store alone"


def source_clock(fleet, pace):
    """a source's clock is set an hour forward, back, and forward again while it runs

    While it is back, its own write filter refuses what is older than the hour before.
    """
    source = fleet.sources[2]
    fleet.restart_with_clock(source, 0)
    time.sleep(pace.phase / 2)
    for offset in (HOUR, 0, HOUR):
        source.host.set_clock(offset)
        time.sleep(pace.phase / 2)
    expected = _cycles_left_out(source, fleet)
    late, _ = fleet.compare(source)
    refused = source.host.metric(*REFUSED)
    require(refused > 0 and late == 0, f"{refused} samples were refused, {late} came too late")
    require(refused == expected,
            f"the source counts {refused} refused samples, but {expected} are missing in it")
    fleet.compare_all()
    return f"{refused} samples refused by the source itself, counted and exactly those missing"


def _cycles_left_out(source, fleet):
    """How many samples are missing in the present run of the source's program, by their numbers."""
    return sum(holes(samples) for samples in fleet.histories(source).values())


def holes(samples):
    numbers = [_cycle(sample) for sample in samples]
    steps = (after - before for before, after in zip(numbers, numbers[1:]))
    # A step back is a new run, which begins with 1; two equal numbers are the end of a run.
    return sum(step - 1 for step in steps if step > 1)


def _cycle(sample):
    return int(sample.value.split()[1]) if isinstance(sample.value, str) else int(sample.value)


def puller_clock(fleet, pace):
    """the puller's clock is set an hour back, right, and an hour forward

    At each jump forward it marks an item of source 1 itself; its write filter then refuses what is
    older than the mark.
    """
    source = fleet.sources[1]
    fleet.puller.stop()
    fleet.puller.set_clock(0)
    fleet.start_puller(own_clock=True, marks_clock_changes=True)
    for offset in (0, -HOUR, 0, HOUR):
        fleet.puller.set_clock(offset)
        time.sleep(pace.phase / 2)
    fleet.silence(source)
    taken_out = []

    def overtaken(_path, expected, found):
        left = without_overtaken(expected, found)
        taken_out.append(len(expected) - sum(not _is_mark(s) for s in left))
        return left

    fleet.compare(source, overtaken=overtaken)
    refused = fleet.puller.metric(*REFUSED)
    require(refused > 0, "the puller refused nothing")
    require(refused == sum(taken_out),
            f"the puller counts {refused} refused samples, but {sum(taken_out)} are missing")
    told = re.findall(r"controller 1: \d+ stored, (\d+) refused", fleet.puller.log())
    require(told and 0 < int(told[-1]) <= refused, f"the log tells of {told} refused samples")
    fleet.compare(fleet.sources[2])
    return f"{refused} samples refused by the puller, counted and exactly those missing"


def _is_mark(sample):
    return sample.value == plant.MARK


def without_overtaken(expected, found):
    """The puller's marks set into the source's samples, less those that each mark made too old.

    These are the samples up to a mark that the puller did not have when it made the mark.
    """
    result = []
    rest = list(expected)
    for mark in (sample for sample in found if _is_mark(sample)):
        before = found[:found.index(mark)]
        pulled = sum(not _is_mark(sample) for sample in before) - sum(
            not _is_mark(sample) for sample in result)
        result += rest[:pulled] + [mark]
        rest = [sample for sample in rest[pulled:] if sample.time > mark.time]
    return result + rest


CASES = {
    "undisturbed": undisturbed,
    "loss": loss,
    "relay": relay,
    "source-stopped": source_stopped,
    "puller-stopped": puller_stopped,
    "store-lost": store_lost,
    "store-lost-clock-behind": store_lost_clock_behind,
    "source-clock": source_clock,
    "puller-clock": puller_clock,  # the last: its marks stay in the item
}
NEED_FAKETIME = ("store-lost-clock-behind", "source-clock", "puller-clock")
