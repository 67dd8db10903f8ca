"""Three hosts at work, and what the puller has to have of the two sources at each moment."""

import os
import shutil
import time

import history
import plant
from host import Host

PAGE = 50  # samples of an item in one reply, so that each comparison goes page by page
CATCH_UP_SECONDS = 90
MOST_LINES = 40


class Difference(Exception):
    """The puller's history is not what it has to be. `lines` tell where."""

    def __init__(self, lines):
        more = len(lines) - MOST_LINES
        super().__init__("\n".join(lines[:MOST_LINES] + [f"and {more} more lines"] * (more > 0)))


class Source:
    """A source, and what its earlier stores and its clock mean for the puller."""

    def __init__(self, host):
        self.host = host
        self.paths = [plant.source_path(item) for item in range(1, plant.ITEMS + 1)]
        self.pulled_paths = [plant.pulled_path(host.number, item)
                             for item in range(1, plant.ITEMS + 1)]
        self.own_clock = False
        # By path: what the puller had of stores that are gone. What the present store has up to
        # the newest of these samples comes too late for it.
        self.before = {path: [] for path in self.paths}

    def page_size(self, histories):
        """For reading at the puller what the source has in these histories."""
        return history.page_size([self.before[path] + histories[path] for path in self.paths], PAGE)

    def expected(self, path, samples, found):
        """What the puller has to have of an item with these samples, and how many came too late."""
        before = self.before[path]
        if not before:
            return samples, 0
        newest = before[-1].time
        known = set(found)
        # In that very millisecond it depends on what the times were cut from.
        taken = [s for s in samples if s.time > newest or (s.time == newest and s in known
                                                          and s not in before)]
        return before + taken, len(samples) - len(taken)


class Fleet:
    def __init__(self, network, program, folder, cycle_ms):
        self.network = network
        self._program = program
        self._folder = folder
        self._cycle_ms = cycle_ms
        self.sources = {number: Source(self._host(number)) for number in plant.SOURCES}
        self.puller = self._host(plant.PULLER)
        self.compared = 0  # samples, by the last comparison of each source
        self._compared = {}

    def _host(self, number):
        host = Host(number, self._program, os.path.join(self._folder, f"host{number}"))
        host.write("writer.lua", plant.WRITER)
        host.write("marker.lua", plant.MARKER)
        return host

    # ---- starting and stopping

    def start(self):
        for source in self.sources.values():
            self.start_source(source)
        self.start_puller()

    def start_source(self, source, writes=True):
        config = plant.source(source.host.number, self._cycle_ms if writes else None)
        source.host.start(config, source.own_clock)

    def restart_with_clock(self, source, offset_seconds):
        """From here on the source has a clock of its own, which can be set."""
        source.host.stop()
        source.host.set_clock(offset_seconds)
        source.own_clock = True
        self.start_source(source)

    def start_puller(self, own_clock=False, marks_clock_changes=False):
        self.puller.start(plant.puller(marks_clock_changes), own_clock)

    def silence(self, source):
        """It serves on, but writes nothing more."""
        source.host.stop()
        self.start_source(source, writes=False)

    def stop(self):
        for host in (self.puller, *(source.host for source in self.sources.values())):
            if host.is_running():
                host.stop()

    # ---- a source without its store

    def take_store(self, source):
        """Stops the source and takes its store away; gives the history that was in it."""
        host = source.host
        host.stop()
        time.sleep(1)  # for what is under way to the puller
        shutil.move(os.path.join(host.folder, "store"), os.path.join(host.folder, "taken"))
        host.start(plant.quiet(plant.source_variables(), "taken"), source.own_clock)
        taken = history.read(host, source.paths, PAGE)
        host.stop()
        shutil.rmtree(os.path.join(host.folder, "taken"))
        return taken

    def lose_store(self, source):
        """Takes the store for good. Gives how many samples nobody has any more."""
        taken = self.take_store(source)
        pulled = history.read(self.puller, source.pulled_paths, source.page_size(taken))
        lines = []
        lost = 0
        for path, pulled_path in zip(source.paths, source.pulled_paths):
            found = pulled[pulled_path]
            expected, _ = source.expected(path, taken[path], found)
            lines += history.differences(pulled_path, expected[:len(found)], found)
            lost += len(expected) - len(found)
            source.before[path] = found
        if lines:
            raise Difference(lines)
        return lost

    # ---- comparing

    @staticmethod
    def histories(source):
        return history.read(source.host, source.paths, PAGE)

    def compare_all(self):
        """Gives how many seconds the puller was behind, at most."""
        return max(self.compare(source)[1] for source in self.sources.values())

    def compare(self, source, seconds=CATCH_UP_SECONDS, overtaken=None):
        """Waits until the puller has what the source has now, and compares all of both histories.

        `overtaken(path, expected, found)` may take out what the puller has to have refused. Gives
        how many samples of the source came too late, and how many seconds the puller was behind.
        """
        time_now = min(history.newest_times(source.host, source.paths).values())
        behind = self._wait_for(source, time_now, seconds)
        # Both are read beyond that time, and cut to it here: the source's times are finer.
        theirs = self.histories(source)
        ours = history.read(self.puller, source.pulled_paths, source.page_size(theirs))
        lines = []
        late = 0
        count = 0
        for path, pulled_path in zip(source.paths, source.pulled_paths):
            found = ours[pulled_path]
            expected, too_late = source.expected(path, theirs[path], found)
            if overtaken is not None:
                expected = overtaken(pulled_path, expected, found)
            expected = history.until(expected, time_now)
            lines += history.differences(pulled_path, expected, history.until(found, time_now))
            late += too_late
            count += len(expected)
        if lines:
            raise Difference(lines)
        self._compared[source.host.number] = count
        self.compared = sum(self._compared.values())
        return late, behind

    def _wait_for(self, source, newest, seconds):
        began = time.monotonic()
        while min(history.newest_times(self.puller, source.pulled_paths).values()) < newest:
            if time.monotonic() - began > seconds:
                trouble = f"source {source.host.number}: the puller has not caught up in {seconds} s"
                raise Difference([trouble] + self._behind(source, newest))
            time.sleep(0.1)
        return time.monotonic() - began

    def _behind(self, source, newest):
        times = history.newest_times(self.puller, source.pulled_paths)
        late = [(path, newest - each) for path, each in times.items() if each < newest]
        return [f"{path}: its newest is {ms} ms older" for path, ms in late[:5]]
